#include "midi/resume_file.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#if defined(_WIN32)
#include <cstdio>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

#include "base/numeric_text.h"

namespace veltrin {

namespace {

constexpr std::string_view kSongKey = "Song";
constexpr std::string_view kHashKey = "ProgramHash";

// The lines of a file, without their CR LF or LF.
bool readLines(const std::string& path, std::vector<std::string>& lines)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(std::move(line));
    }
    return !in.bad();
}

// "key=value" lines; lines without "=" (or with an empty key) are skipped, and listed in
// skipped when given (blank lines aside).
SettingList keyValues(const std::vector<std::string>& lines, std::size_t from,
                      std::vector<std::string>* skipped = nullptr)
{
    SettingList list;
    for (std::size_t i = from; i < lines.size(); ++i) {
        const std::size_t equal = lines[i].find('=');
        if (equal == std::string::npos || equal == 0) {
            if (skipped && lines[i].find_first_not_of(" \t") != std::string::npos)
                skipped->push_back("line " + std::to_string(i + 1) + ": " + lines[i]);
            continue;
        }
        list.emplace_back(lines[i].substr(0, equal), lines[i].substr(equal + 1));
    }
    return list;
}

std::string absolutePath(const std::string& path)
{
    if (path.empty())
        return path;
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    return error ? path : absolute.lexically_normal().string();
}

#if !defined(_WIN32)
bool writeAll(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}
#endif

// Settings keys that are not part of what a program is made with.
bool leftOutOfPlan(std::string_view key)
{
    return key == "Port" || key == "duree_trou_poincon" || key == "duree_metre_laser";
}

std::string tableText(const OrganScale& scale)
{
    const int count = scale.standard_AF_actif ? kAlderFennTracks : std::clamp(scale.nb_notes, 0, kMaxTracks);
    std::string text;
    for (int i = 0; i < count; ++i) {
        if (i > 0)
            text += ',';
        text += std::to_string(scale.standard_AF_actif ? scale.notes_AF[static_cast<std::size_t>(i)]
                                                       : scale.notes_standard[static_cast<std::size_t>(i)]);
    }
    return text;
}

void applyTable(std::string_view text, OrganScale& scale)
{
    std::size_t track = 0;
    const std::size_t size = scale.standard_AF_actif ? kAlderFennTracks : kMaxTracks;
    while (track < size) {
        const std::size_t comma = text.find(',');
        const auto note = static_cast<std::int16_t>(std::llround(leadingNumber(text.substr(0, comma))));
        if (scale.standard_AF_actif)
            scale.notes_AF[track] = note;
        else
            scale.notes_standard[track] = note;
        ++track;
        if (comma == std::string_view::npos)
            break;
        text.remove_prefix(comma + 1);
    }
}

// Settings recorded before a key existed were made as the program then did: every channel
// on the roll, no transposition. Every recorded plan names the machine.
void addKeysOfOlderPrograms(SettingList& settings)
{
    if (!settingValue(settings, "Type_machine"))
        return;
    for (const auto& [key, value] : {std::pair{"Channels", "1-16"}, std::pair{"Transpose", "0"}}) {
        if (!settingValue(settings, key))
            settings.emplace_back(key, value);
    }
}

}  // namespace

bool isResumePath(std::string_view path)
{
    return path.size() >= 3 && path.substr(path.size() - 3) == "rep";
}

std::string resumePathFor(std::string_view songPath)
{
    return std::string(songPath) + ".rep";
}

Result<ResumeFile, ResumeFileError> readResumeFile(const std::string& path, std::vector<std::string>* skippedLines)
{
    std::vector<std::string> lines;
    if (!readLines(path, lines))
        return fail(ResumeFileError::CannotOpen, path);
    if (lines.size() < 4)
        return fail(ResumeFileError::Incomplete,
                    path + ": " + std::to_string(lines.size()) + " of 4 lines");

    ResumeFile content;
    content.songPath = lines[0];
    const std::optional<double> restart = strictNumber(lines[1]);
    if (!restart || *restart < 0.0)
        return fail(ResumeFileError::BadLine, path + ": line 2 = \"" + lines[1] +
                                                  "\": the restart time must be a number of 0 ms or more");
    const std::optional<double> line = strictNumber(lines[2]);
    if (!line || *line < 0.0 || *line != std::floor(*line) || *line > 1e15)
        return fail(ResumeFileError::BadLine, path + ": line 3 = \"" + lines[2] +
                                                  "\": the program line to restart from must be a whole number of 0 or more");
    const std::optional<double> band = strictNumber(lines[3]);
    if (!band || *band < 0.0)
        return fail(ResumeFileError::BadLine, path + ": line 4 = \"" + lines[3] +
                                                  "\": the band width Fourchette must be a number of 0 or more (mm)");
    content.restartMs = *restart;
    content.restartLine = static_cast<long long>(*line);
    content.Fourchette = lines[3];
    content.settings = keyValues(lines, 4, skippedLines);
    addKeysOfOlderPrograms(content.settings);
    return content;
}

Result<std::string, ResumeFileError> writeResumeFile(const std::string& path,
                                                     const ResumeFile& content)
{
    std::string text = absolutePath(content.songPath) + "\r\n" + plainNumber(content.restartMs) + "\r\n" +
                       std::to_string(content.restartLine) + "\r\n" + content.Fourchette + "\r\n";
    text += settingLines(content.settings);
    return writeFileDurably(path, text);
}

Result<std::string, ResumeFileError> writeFileDurably(const std::string& path, std::string_view text,
                                                      bool flushToDisk)
{
    const std::string temporary = path + ".tmp";
#if defined(_WIN32)
    (void)flushToDisk;
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
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
#else
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail(ResumeFileError::CannotWrite, temporary + ": " + std::strerror(errno));
    // The data must be on the disk before the rename makes it the file: after a power cut
    // the rename could otherwise survive and the content not.
    const bool written = writeAll(fd, text) && (!flushToDisk || ::fsync(fd) == 0);
    const int writeError = errno;
    if (::close(fd) != 0 || !written) {
        ::unlink(temporary.c_str());
        return fail(ResumeFileError::CannotWrite, temporary + ": " + std::strerror(written ? errno : writeError));
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int renameError = errno;
        ::unlink(temporary.c_str());
        return fail(ResumeFileError::CannotWrite, path + ": " + std::strerror(renameError));
    }
    if (!flushToDisk)
        return path;
    // The rename itself lives in the folder.
    std::string folder = std::filesystem::path(path).parent_path().string();
    if (folder.empty())
        folder = ".";
    const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return fail(ResumeFileError::CannotWrite, folder + ": " + std::strerror(errno));
    const bool synced = ::fsync(dir) == 0;
    const int syncError = errno;
    ::close(dir);
    if (!synced)
        return fail(ResumeFileError::CannotWrite, folder + ": " + std::strerror(syncError));
    return path;
#endif
}

SettingList planSettingsOf(const Settings& settings, const OrganScale& scale)
{
    SettingList list;
    Settings copy = settings;
    for (const SettingKey& entry : settingKeys()) {
        if (leftOutOfPlan(entry.key))
            continue;
        // The 20-note scale's twin keys have no field: the active values are under the
        // plain keys.
        if (const std::string* field = settingField(copy, entry.key))
            list.emplace_back(std::string(entry.key), *field);
    }
    list.emplace_back("longueur_pli", plainNumber(scale.longueur_pli));
    list.emplace_back("nb_notes", std::to_string(scale.nb_notes));
    list.emplace_back("standard_AF_actif", scale.standard_AF_actif ? "1" : "0");
    list.emplace_back("notes", tableText(scale));
    return list;
}

void applyPlanSettings(const SettingList& list, Settings& settings, OrganScale& scale)
{
    const std::string* table = nullptr;
    for (const auto& [key, value] : list) {
        if (leftOutOfPlan(key))
            continue;
        if (std::string* field = settingField(settings, key))
            *field = value;
        else if (key == "longueur_pli")
            scale.longueur_pli = leadingNumber(value);
        else if (key == "nb_notes")
            scale.nb_notes = static_cast<int>(std::clamp(std::llround(leadingNumber(value)), 0LL,
                                                         static_cast<long long>(kMaxTracks)));
        else if (key == "standard_AF_actif")
            scale.standard_AF_actif = leadingNumber(value) == 1.0;
        else if (key == "notes")
            table = &value;
    }
    // The table fills the one the flag chooses.
    if (table)
        applyTable(*table, scale);
}

std::optional<std::string> settingValue(const SettingList& list, std::string_view key)
{
    for (const auto& [k, v] : list) {
        if (k == key)
            return v;
    }
    return std::nullopt;
}

std::string settingLines(const SettingList& list)
{
    std::string text;
    for (const auto& [key, value] : list)
        text += key + "=" + value + "\r\n";
    return text;
}

std::vector<std::string> settingDifferences(const SettingList& list, const SettingList& current)
{
    std::vector<std::string> differences;
    for (const auto& [key, value] : list) {
        const auto now = settingValue(current, key);
        if (now && *now != value)
            differences.push_back(key + "=" + value + " (settings: " + *now + ")");
    }
    return differences;
}

std::string programRecordPath(std::string_view programPath)
{
    return std::string(programPath) + ".settings";
}

std::string textHash(std::string_view text)
{
    std::uint64_t hash = 14695981039346656037ULL;
    for (const char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 1099511628211ULL;
    }
    static const char digits[] = "0123456789abcdef";
    std::string hex(16, '0');
    for (int i = 15; i >= 0; --i) {
        hex[static_cast<std::size_t>(i)] = digits[hash & 0xF];
        hash >>= 4;
    }
    return hex;
}

Result<std::string, ResumeFileError> writeProgramRecord(const std::string& programPath,
                                                        const std::string& songPath,
                                                        std::string_view programText,
                                                        const SettingList& settings)
{
    std::string text = std::string(kSongKey) + "=" + absolutePath(songPath) + "\r\n" + std::string(kHashKey) +
                       "=" + textHash(programText) + "\r\n";
    text += settingLines(settings);
    return writeFileDurably(programRecordPath(programPath), text, false);
}

Result<ProgramRecord, ResumeFileError> readProgramRecord(const std::string& programPath,
                                                         std::string_view programText, bool* textMatches)
{
    const std::string path = programRecordPath(programPath);
    std::vector<std::string> lines;
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error) || !readLines(path, lines))
        return fail(ResumeFileError::CannotOpen, path);
    ProgramRecord record;
    std::optional<std::string> hash;
    for (auto& [key, value] : keyValues(lines, 0)) {
        if (key == kSongKey)
            record.songPath = std::move(value);
        else if (key == kHashKey)
            hash = std::move(value);
        else
            record.settings.emplace_back(std::move(key), std::move(value));
    }
    const bool matches = hash == textHash(programText);
    if (textMatches)
        *textMatches = matches;
    else if (!matches)
        return fail(ResumeFileError::OtherProgram, path);
    addKeysOfOlderPrograms(record.settings);
    return record;
}

}  // namespace veltrin
