#pragma once
// The resume file: four text lines written next to a song (its full path + ".rep") while a
// job streams, so that an interrupted job can be taken up again later.
//   1  the full path of the MIDI file
//   2  the restart time in ms: the earliest start among the holes not yet acknowledged
//   3  the index of the first program line not yet acknowledged
//   4  the text of Fourchette (the travel-optimizing band width)
// Every line ends with CR LF; the reader also accepts bare LF.

#include <string>
#include <string_view>

#include "app/result.h"

namespace veltrin {

struct ResumeFile {
    std::string songPath;
    double restartMs = 0.0;
    long long restartLine = 0;
    std::string Fourchette;
};

enum class ResumeFileError {
    CannotOpen,   // missing or unreadable file
    Incomplete,   // fewer than four lines
    CannotWrite,  // temporary file not created, not written or not renamed
};

// True when the last three characters of path are "rep" (case-sensitive: "song.mid.REP" is
// not a resume file).
bool isResumePath(std::string_view path);

// The resume file of a song: songPath + ".rep".
std::string resumePathFor(std::string_view songPath);

// Reads the four lines; the numbers by the leading-number rule (unreadable text is 0).
Result<ResumeFile, ResumeFileError> readResumeFile(const std::string& path);

// Writes the four lines into a temporary file beside path, then renames it over path, so a
// crash leaves either the previous file or the new one, never half a file. Returns path.
Result<std::string, ResumeFileError> writeResumeFile(const std::string& path,
                                                     const ResumeFile& content);

}  // namespace veltrin
