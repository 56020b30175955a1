#include "cli/input_files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

namespace veltrin {

namespace {

// A program of 500,000 holes is about 45 MB; a text check needs no more than its start.
constexpr std::size_t kCheckedBytes = std::size_t{1} << 20;

bool isLetter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// The text of a line that Grbl reads: without "(...)" and ";" comments and blanks.
std::string commandText(std::string_view line)
{
    std::string out;
    bool inParentheses = false;
    for (const char c : line) {
        if (inParentheses) {
            inParentheses = c != ')';
            continue;
        }
        if (c == ';')
            break;
        if (c == '(')
            inParentheses = true;
        else if (c != ' ' && c != '\t' && c != '\r')
            out += c;
    }
    return out;
}

std::string hexByte(unsigned char byte)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", byte);
    return text;
}

}  // namespace

std::string fileProblem(const std::string& path)
{
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::not_found)
        return "no such file";
    if (error)
        return error.message();
    if (status.type() == fs::file_type::directory)
        return "a folder, not a file";
    if (status.type() != fs::file_type::regular)
        return "not a regular file (a device, a pipe or a socket)";
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        return std::strerror(errno);
    std::fclose(file);
    return {};
}

std::string programFileProblem(const std::string& path)
{
    if (std::string problem = fileProblem(path); !problem.empty())
        return problem;
    std::ifstream in(path, std::ios::binary);
    std::string head(kCheckedBytes, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(in.gcount()));
    if (head.empty())
        return "an empty file";
    if (head.starts_with("MThd") || head.starts_with("RIFF"))
        return "a MIDI file, not a G-code program (convert it first)";
    for (std::size_t i = 0; i < head.size(); ++i) {
        const auto byte = static_cast<unsigned char>(head[i]);
        if ((byte < 0x20 && byte != '\t' && byte != '\r' && byte != '\n') || byte == 0x7f)
            return "not a text file (byte " + hexByte(byte) + " at offset " + std::to_string(i) + ")";
    }
    // The first line that holds a command tells a program from other text.
    std::size_t start = 0;
    int number = 0;
    while (start < head.size()) {
        std::size_t end = head.find('\n', start);
        if (end == std::string::npos)
            end = head.size();
        const std::string_view line(head.data() + start, end - start);
        ++number;
        const std::string command = commandText(line);
        if (!command.empty()) {
            const bool word = command[0] == '$' ||
                              (isLetter(command[0]) && command.size() > 1 &&
                               (std::strchr("0123456789.-+", command[1]) != nullptr));
            if (word)
                return {};
            std::string shown(line.substr(0, 40));
            if (!shown.empty() && shown.back() == '\r')
                shown.pop_back();
            return "not a G-code program (line " + std::to_string(number) + ": \"" + shown + "\")";
        }
        start = end + 1;
    }
    return "not a G-code program (comments and blank lines only)";
}

}  // namespace veltrin
