#include "midi/resume_file.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "app/numeric_text.h"

namespace veltrin {

bool isResumePath(std::string_view path)
{
    return path.size() >= 3 && path.substr(path.size() - 3) == "rep";
}

std::string resumePathFor(std::string_view songPath)
{
    return std::string(songPath) + ".rep";
}

Result<ResumeFile, ResumeFileError> readResumeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return fail(ResumeFileError::CannotOpen, path);

    std::vector<std::string> lines;
    std::string line;
    while (lines.size() < 4 && std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
    }
    if (in.bad())
        return fail(ResumeFileError::CannotOpen, path);
    if (lines.size() < 4)
        return fail(ResumeFileError::Incomplete,
                    path + ": " + std::to_string(lines.size()) + " of 4 lines");

    ResumeFile content;
    content.songPath = lines[0];
    content.restartMs = leadingNumber(lines[1]);
    content.restartLine = static_cast<long long>(std::llround(leadingNumber(lines[2])));
    content.Fourchette = lines[3];
    return content;
}

Result<std::string, ResumeFileError> writeResumeFile(const std::string& path,
                                                     const ResumeFile& content)
{
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out)
            return fail(ResumeFileError::CannotWrite, temporary);
        out << content.songPath << "\r\n"
            << plainNumber(content.restartMs) << "\r\n"
            << content.restartLine << "\r\n"
            << content.Fourchette << "\r\n";
        out.flush();
        if (!out) {
            out.close();
            std::error_code ignored;
            std::filesystem::remove(temporary, ignored);
            return fail(ResumeFileError::CannotWrite, temporary);
        }
    }
    std::error_code error;
    std::filesystem::rename(temporary, path, error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        return fail(ResumeFileError::CannotWrite, path + ": " + error.message());
    }
    return path;
}

}  // namespace veltrin
