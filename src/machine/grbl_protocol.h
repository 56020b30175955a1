#pragma once
// Grbl 1.1 text protocol helpers: assembling received bytes into lines, telling responses
// from push messages, cleaning program lines before they are sent, the jog and tool command
// texts of the key table, the "$$" glossary and the job's time texts.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrin {

// Splits received bytes into lines on '\n'; '\r' and NUL are dropped, empty lines are not
// returned. A line cut between two reads is kept until its '\n' arrives.
class LineAssembler {
public:
    std::vector<std::string> feed(std::string_view bytes);
    // The bytes of an unfinished line (shown when the port closes, for instance).
    const std::string& pending() const { return m_partial; }
    void clear() { m_partial.clear(); }

private:
    std::string m_partial;
};

// What a received line is. Only Ok and Error answer a line sent; all others are push messages.
enum class ReplyKind {
    Ok,       // "ok"
    Error,    // "error:N"
    Alarm,    // "ALARM:N"
    Banner,   // "Grbl 1.1h ['$' for help]"
    Message,  // "[MSG:...]", "[GC:...]" and the other bracketed lines
    Status,   // "<Idle|...>"
    Setting,  // "$N=value" of "$$"
    Other,    // anything else (noise, ">line:ok")
};

struct Reply {
    ReplyKind kind = ReplyKind::Other;
    int code = 0;  // N of "error:N" and "ALARM:N"
};

Reply classifyReply(std::string_view line);
inline bool isResponse(const Reply& r) { return r.kind == ReplyKind::Ok || r.kind == ReplyKind::Error; }

// The text sent for a program line: "(...)" and ";" comments removed, and the bytes Grbl takes
// as real-time commands ("?", "!", "~", 0x18, bytes 0x80 and above) and other control
// characters dropped; blanks at both ends trimmed. Empty when nothing is left.
std::string lineToSend(std::string_view programLine);

// The feed for jogs and the next roll: VitesseF for a laser, VitesseF_poin for a punch, as a
// whole number (leading-number rule, fraction dropped).
long long jogFeed(bool laser, std::string_view VitesseF, std::string_view VitesseF_poin);
// Jog commands of the key table ("$J=G91X50F1500").
std::string jogCommand(char axis, int distanceMm, long long feed);
// "$J=G91Y" + roll gap + "F" + feed: advances the cardboard to the next roll.
std::string nextRollJog(int rollGapMm, long long feed);
// Tool test (Alt+P): the laser fires at Laser_power, the punch with "M03 S1000", then
// "G1 F1000" and "G0 F1000 S0".
std::vector<std::string> toolTestCommands(bool laser, std::string_view laserPower);
// Laser pointer (Alt+L): switching on sends "M03 S" + power and "G1 F1000", switching off
// "G0 F1000 S0". Empty for a punch.
std::vector<std::string> laserPointerCommands(bool laser, bool pointerOn, std::string_view laserPower);

// Liste_commentaires_grbl: the 35 explanations of Grbl 1.1's "$$" lines, by position; the last
// one (" ") falls on the final "ok".
// remplir_glossaire ("fill glossary"): appends the 35 entries to list.
void remplir_glossaire(std::vector<std::string>& Liste_commentaires_grbl);

// Annotates the answer to "$$": each line gets the glossary entry at its position. Lines past
// the end of the glossary get nothing.
class SettingsAnnotator {
public:
    explicit SettingsAnnotator(const std::vector<std::string>& glossary) : m_glossary(&glossary) {}
    void restart() { m_lineCounter = 0; }
    std::string annotate(std::string_view line);

private:
    const std::vector<std::string>* m_glossary;
    std::size_t m_lineCounter = 0;
};

// Grbl 1.1's meaning of "error:N" (1-38) and "ALARM:N" (1-9), in words; empty for a code
// Grbl does not define.
std::string_view errorMeaning(int code);
std::string_view alarmMeaning(int code);
// "error:20 (unsupported or invalid G-code command)": the reply with its meaning, for the log.
std::string explainedReply(std::string_view line);
// ALARM:1 (hard limit) and ALARM:2 (soft limit): Grbl then answers nothing, not even "?",
// until a soft reset.
inline bool isCriticalAlarm(int code) { return code == 1 || code == 2; }

// A status report "<Run|MPos:1.000,2.000,0.000|FS:800,0>". The position is the machine
// position when the report gives MPos, else WPos (plus WCO when the report carries it).
struct StatusReport {
    std::string state;  // "Idle", "Run", "Hold:0", "Alarm", ...
    bool machinePosition = true;
    double position[3] = {0.0, 0.0, 0.0};
    bool hasWorkOffset = false;
    double workOffset[3] = {0.0, 0.0, 0.0};
};
std::optional<StatusReport> parseStatusReport(std::string_view line);

// The speed factor a Veltrin emulator reports in the build info of "$I"
// ("[VER:1.1h.20190830:emulator x20]"); nullopt for any other board.
std::optional<double> emulatorSpeed(std::string_view versionLine);
// The build info text of the emulator at that speed factor ("emulator x20").
std::string emulatorBuildInfo(double speed);

// "hh:mm:ss" of a number of seconds; a day or more wraps round, negatives read 0.
std::string remainingClock(double seconds);

// The learned-duration rule: a stored 999 (never measured) is replaced by the measure, any
// other value becomes the mean of both.
double learnedDuration(double stored, double measured);

}  // namespace veltrin
