#pragma once
// The resume file and the record of the settings a program was made with.
//
// Resume file: written next to a song (its full path + ".rep") while a job streams, so that an
// interrupted job can be taken up again later:
//   1  the absolute path of the MIDI file
//   2  the restart time in ms: the earliest start among the holes not surely made
//   3  the index of the first program line not yet acknowledged
//   4  the text of Fourchette (the travel-optimizing band width)
//   then one "key=value" line for every setting the program was made with (planSettingsOf).
// Every line ends with CR LF; the reader also accepts bare LF. A file of four lines (from an
// older version) has no settings: it opens with the current ones.
//
// Program record: Genere_GCode writes "<program>.settings" beside every program, in the same
// "key=value" form: "Song=" the song's absolute path, "ProgramHash=" the hash of the program
// text it describes, then the settings. Streaming takes the roll speed and the settings of the
// resume file from it, so they are those the program was made with, not today's.
//
// The resume file is written durably: a temporary file, flushed to the disk, renamed over the
// old one, and the folder flushed too, so neither a crash nor a power cut of the computer
// leaves half a file or loses the rename. The program record is replaced whole the same way
// but not flushed (every generation writes one; it is read when a job starts, and a record
// lost to a power cut only means a job timed with the current settings, which the log says).

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/result.h"
#include "base/settings.h"
#include "scales/organ_scale.h"

namespace veltrin {


// (key, value) pairs in the order they are written.
using SettingList = std::vector<std::pair<std::string, std::string>>;

struct ResumeFile {
    std::string songPath;
    double restartMs = 0.0;
    long long restartLine = 0;
    std::string Fourchette;
    SettingList settings;
};

enum class ResumeFileError {
    CannotOpen,   // missing or unreadable file
    Incomplete,   // fewer than four lines
    CannotWrite,  // temporary file not created, not written, not flushed or not renamed
    OtherProgram, // a program record that describes another program text (hash differs)
    BadLine,      // line 2, 3 or 4 is not what it must be (the detail names it)
};

// True when the last three characters of path are "rep" (case-sensitive: "song.mid.REP" is
// not a resume file).
bool isResumePath(std::string_view path);

// The resume file of a song: songPath + ".rep".
std::string resumePathFor(std::string_view songPath);

// Reads the four lines, then the "key=value" lines (others are skipped and listed). Fails
// with BadLine, naming the line, when line 2 is not a time of 0 ms or more, line 3 not a
// whole number of 0 or more, or line 4 not a band width of 0 or more (each a whole plain
// number; "abc", "-500", "1e400" and "nan" are refused, not read as 0).
// skippedLines, when given, receives the lines after the fourth that are not "key=value"
// ("line 7: text"), for the log.
Result<ResumeFile, ResumeFileError> readResumeFile(const std::string& path,
                                                   std::vector<std::string>* skippedLines = nullptr);

// Writes the file durably (see above); line 1 is made absolute. Returns path.
Result<std::string, ResumeFileError> writeResumeFile(const std::string& path,
                                                     const ResumeFile& content);

// Writes text into "<path>.tmp", flushes it to the disk, renames it over path and flushes
// the folder. Returns path. Without flushToDisk the file is only replaced whole (a crash of
// the program never leaves half of it; a power cut may lose it).
Result<std::string, ResumeFileError> writeFileDurably(const std::string& path, std::string_view text,
                                                      bool flushToDisk = true);

// --- the settings a program is made with ---

// Every setting of the store that shapes a program (the port and the learned durations
// left out, the 20-note scale's twin keys too: the active values stand under the plain
// keys), then the scale's own values: "longueur_pli" (fold length), "nb_notes",
// "standard_AF_actif" and "notes" (the track table in use, comma-separated), so that an
// edited scale file cannot change a resumed plan.
SettingList planSettingsOf(const Settings& settings, const OrganScale& scale);

// Lays the values of list over settings and scale; unknown keys are skipped.
void applyPlanSettings(const SettingList& list, Settings& settings, OrganScale& scale);

// The value of key in list, if there.
std::optional<std::string> settingValue(const SettingList& list, std::string_view key);

// "key=value" lines, each ended by CR LF.
std::string settingLines(const SettingList& list);

// The keys of list whose value differs in current, with both values:
// "Vitcarton=80 (settings: 60)".
std::vector<std::string> settingDifferences(const SettingList& list, const SettingList& current);

// --- the record beside a program ---

struct ProgramRecord {
    std::string songPath;
    SettingList settings;
};

// "<programPath>.settings".
std::string programRecordPath(std::string_view programPath);
// A 64-bit FNV-1a hash of text, as 16 hexadecimal digits.
std::string textHash(std::string_view text);
// Writes the record of the program whose text is programText.
Result<std::string, ResumeFileError> writeProgramRecord(const std::string& programPath,
                                                        const std::string& songPath,
                                                        std::string_view programText,
                                                        const SettingList& settings);
// Reads the record beside programPath; OtherProgram when it was written for another text,
// unless textMatches is given: it then tells whether it was, and the record is returned
// either way (a program edited by hand keeps the values it was made with). The settings of a
// record, or a resume file, that name Type_machine but not Channels or Transpose were
// written before those existed, and read as programs were then made: Channels=1-16 and
// Transpose=0.
Result<ProgramRecord, ResumeFileError> readProgramRecord(const std::string& programPath,
                                                         std::string_view programText,
                                                         bool* textMatches = nullptr);

}  // namespace veltrin
