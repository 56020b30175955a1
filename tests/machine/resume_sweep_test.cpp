// Interrupted jobs taken up again: a job is cut off at many points (hang-up, Stop, power
// loss), the resume file it left is opened with other current settings, and the resumed
// program together with the holes surely cut covers every hole of the full program.
// The job is the core JobStreamer fed Grbl's answers directly; the programs, resume files
// and imports are the real ones, in a temporary Documents folder.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/app_state.h"
#include "app/grbl_link.h"
#include "app/song_import.h"
#include "base/numeric_text.h"
#include "machine/job_streamer.h"
#include "midi/resume_file.h"
#include "scales/scale_file.h"
#include "support/midi_bytes.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

using HoleKey = std::pair<int, int>;  // track, start ms

constexpr const char* kFileScale = "Street 80";
// 12 tracks at 80 mm/s: a roll speed neither built-in scale has.
const std::string kFileScaleText =
    "// street organ at 80 mm/s\r\n80\r\n120\r\n7\r\n5\r\n150\r\n 12\r\n"
    "60\r\n62\r\n64\r\n65\r\n67\r\n69\r\n71\r\n72\r\n74\r\n76\r\n77\r\n79\r\n";

// A song on the scale's own notes: short and long notes (split by bridges), and on each
// track notes that overlap or follow closely (what the cleanup merges or spaces).
std::vector<testing::TestNote> songFor(const OrganScale& scale)
{
    std::vector<int> notes;
    for (int track = 0; track < scale.nb_notes && track < kMaxTracks; ++track)
        notes.push_back(scale.trackNote(track));
    std::vector<testing::TestNote> song;
    for (int i = 0; i < 90; ++i) {
        const int start = i * 110;
        const int length = 60 + (i * 137) % 900;
        song.push_back({start, start + length, notes[static_cast<std::size_t>((i * 7) % notes.size())]});
        if (i % 9 == 0)  // the same track again before the first ends
            song.push_back({start + 40, start + length + 200, notes[static_cast<std::size_t>((i * 7) % notes.size())]});
    }
    return song;
}

// Grbl's planner holds 16 blocks: a hole with at least 16 acknowledged motion lines after its
// last line has surely left it. This plain model counts every G0/G1 line naming an axis.
bool isMotion(const std::string& line)
{
    const std::string text = lineToSend(line);
    return (text.starts_with("G0 ") || text.starts_with("G1 ")) &&
           text.find_first_of("XYZ") != std::string::npos;
}

enum class Interrupt { HangUp, Stop, PowerLoss, HangUpAfterIdle };

struct Scenario {
    const char* machine;
    const char* scale;
    const char* cleanup;
};

void PrintTo(const Scenario& scenario, std::ostream* out)
{
    *out << scenario.machine << ", " << scenario.scale << ", RollCleanup=" << scenario.cleanup;
}

class ResumeSweep : public ::testing::TestWithParam<Scenario> {
protected:
    void SetUp() override
    {
        dir.writeScale(kFileScale, kFileScaleText);
        std::filesystem::create_directories(dir.path() / "Veltrin" / "Temp");
    }

    // The operator's state at start-up with this scenario's settings.
    void install(AppState& state, const std::string& machine, const std::string& scale, const std::string& cleanup)
    {
        state.dossier_documents = dir.str();
        state.settings.Type_machine = machine;
        state.settings.Standard = scale;
        state.settings.RollCleanup = cleanup;
        Def_standard(state.dossier_documents, state.settings, state.scale, state.user_msg_list);
        state.demarrage_fini = true;
    }

    testing::TempDir dir;
};

// Plays Grbl to the streamer: a welcome text after each soft reset, "ok" to each line,
// "$32=1" in the listing of "$$". Returns the resume points written meanwhile.
class FakeGrbl {
public:
    explicit FakeGrbl(JobStreamer& job) : m_job(&job) {}

    void carryOut(std::vector<ResumePoint>& points)
    {
        for (int round = 0; round < 100000; ++round) {
            auto actions = m_job->takeActions();
            if (actions.empty())
                return;
            for (auto& action : actions) {
                if (auto* p = std::get_if<ResumePoint>(&action))
                    points.push_back(*p);
                else if (auto* e = std::get_if<JobEnded>(&action))
                    outcome = e->outcome;
                else if (auto* w = std::get_if<WriteBytes>(&action))
                    m_pending.push_back(w->bytes);
            }
        }
    }

    // Answers what was written, one reply at a time, until the job has acknowledged lines.
    void answerUntil(std::size_t acknowledged, std::vector<ResumePoint>& points, bool reportIdle)
    {
        carryOut(points);
        while (m_job->running() && !m_pending.empty() && m_job->progress() < acknowledged) {
            const std::string bytes = m_pending.front();
            m_pending.erase(m_pending.begin());
            if (bytes == "\x18")
                m_job->onLine("Grbl 1.1h ['$' for help]");
            else if (bytes == "$$\r")
                m_job->onLine("$32=1"), m_job->onLine("ok");
            else if (bytes == "$I\r")
                m_job->onLine("[VER:1.1h.20190830:]"), m_job->onLine("ok");
            else if (!bytes.empty() && bytes.back() == '\r')
                m_job->onLine("ok");
            now += 40;
            m_job->onTick(now);
            if (reportIdle) {
                // A machine that cuts faster than lines come: two reports in a row find it idle.
                m_job->onLine("<Idle|MPos:0.000,0.000,0.000|FS:0,0>");
                m_job->onLine("<Idle|MPos:0.000,0.000,0.000|FS:0,0>");
            }
            carryOut(points);
        }
    }

    std::int64_t now = 0;
    std::optional<JobOutcome> outcome;

private:
    JobStreamer* m_job;
    std::vector<std::string> m_pending;
};

TEST_P(ResumeSweep, ResumedProgramAndCutHolesCoverTheWholeRoll)
{
    const Scenario scenario = GetParam();
    const std::string songPath = (dir.path() / "song.mid").string();

    AppState made;
    install(made, scenario.machine, scenario.scale, scenario.cleanup);
    testing::writeFile(songPath, testing::midiFile(songFor(made.scale)));
    MemorySettingsStore unused;
    auto full = Ouvre_midi(made, {songPath}, 0, {&unused, false});
    ASSERT_TRUE(full.ok()) << full.detail();
    const auto programLines = testing::textLines(testing::readText(full->programPath));
    const auto fullHoles = made.writtenHoles;
    ASSERT_GT(fullHoles.size(), 60u);

    // Where each hole's lines end, and how many motion lines come before each line.
    std::vector<std::size_t> holeEnd;
    for (std::size_t h = 0; h < fullHoles.size(); ++h)
        holeEnd.push_back(h + 1 < fullHoles.size() ? static_cast<std::size_t>(fullHoles[h + 1].second)
                                                   : programLines.size());
    std::vector<std::size_t> motionsBefore(programLines.size() + 1, 0);
    for (std::size_t i = 0; i < programLines.size(); ++i)
        motionsBefore[i + 1] = motionsBefore[i] + (isMotion(programLines[i]) ? 1 : 0);

    const Interrupt interrupts[] = {Interrupt::HangUp, Interrupt::Stop, Interrupt::PowerLoss, Interrupt::HangUpAfterIdle};
    int resumes = 0;
    // The job streams as "veltrin-cli stream" does, with today's settings (the built-in 60 mm/s
    // scale) and the record file that the generation wrote beside the program.
    const std::string programText = testing::readText(full->programPath);
    auto record = readProgramRecord(full->programPath, programText);
    ASSERT_TRUE(record.ok()) << record.detail();
    EXPECT_EQ(record->songPath, songPath);
    AppState streaming;
    install(streaming, "Laser", kKolbyName, "1");
    streaming.chemin_morceau = record->songPath;
    streaming.programSettings = record->settings;

    for (std::size_t k = 3; k < programLines.size(); k += programLines.size() / 7 + 1) {
        for (const Interrupt interrupt : interrupts) {
            SCOPED_TRACE("interrupted after line " + std::to_string(k) + ", mode " +
                         std::to_string(static_cast<int>(interrupt)));
            std::filesystem::remove(resumePathFor(songPath));

            MessageLog log;
            LogSink sink(log);
            JobStreamer job(sink);
            FakeGrbl grbl(job);
            std::vector<ResumePoint> points;
            job.start(programForJob(streaming, programLines, "song.gcode"), false, 0);
            const bool idle = interrupt == Interrupt::HangUpAfterIdle;
            grbl.answerUntil(k, points, idle);
            const std::size_t acknowledged = job.progress();
            switch (interrupt) {
            case Interrupt::HangUp:
            case Interrupt::HangUpAfterIdle:
                job.portLost();
                break;
            case Interrupt::Stop:
                job.stop();
                grbl.carryOut(points);
                job.onLine("Grbl 1.1h ['$' for help]");
                grbl.carryOut(points);
                job.onLine("ok");  // the "M5"
                break;
            case Interrupt::PowerLoss:
                break;  // nothing more: the last resume file written stays
            }
            grbl.carryOut(points);
            if (points.empty()) {
                // Nothing of this job acknowledged: whatever resume file there was is left alone.
                EXPECT_EQ(job.okCount(), 0u);
                continue;
            }
            const ResumePoint& last = points.back();
            ASSERT_TRUE(writeResumeFile(resumePathFor(songPath),
                                        {last.songPath, last.restartMs, last.restartLine, last.Fourchette, last.settings})
                            .ok());

            // What was surely cut: with Idle reports, every hole acknowledged before the
            // last report but one; without, only holes 16 motions deep in the planner.
            std::set<HoleKey> cut;
            for (std::size_t h = 0; h < fullHoles.size(); ++h) {
                const bool surely = idle ? holeEnd[h] <= acknowledged
                                         : motionsBefore[acknowledged] >= motionsBefore[holeEnd[h]] + 16;
                if (surely)
                    cut.insert({fullHoles[h].first.track, fullHoles[h].first.startMs});
            }

            // The operator has changed the settings since: other roll speed, band width,
            // machine, cleanup and scale. The resume keeps what the program was made with.
            AppState now;
            install(now, std::string(scenario.machine) == "Laser" ? "Punch" : "Laser",
                    std::string(scenario.scale) == kKolbyName ? kAlderFennName : kKolbyName,
                    std::string(scenario.cleanup) == "1" ? "0" : "1");
            now.settings.Vitcarton = "71";
            now.settings.Fourchette = "3";
            now.settings.Lgponts = "2.5";
            const Settings operatorSettings = now.settings;
            const OrganScale operatorScale = now.scale;
            MemorySettingsStore store;
            auto resumed = Ouvre_midi(now, {resumePathFor(songPath)}, 0, {&store, true});
            ASSERT_TRUE(resumed.ok()) << resumed.detail();
            EXPECT_TRUE(resumed->settingsRestored);
            EXPECT_TRUE(store.values().empty()) << "nothing saved";
            EXPECT_EQ(settingLines(planSettingsOf(now.settings, now.scale)),
                      settingLines(planSettingsOf(operatorSettings, operatorScale)));
            EXPECT_EQ(now.settings.Vitcarton, "71");

            std::set<HoleKey> again;
            for (const auto& [piece, line] : now.writtenHoles)
                again.insert({piece.track, piece.startMs});
            std::size_t missed = 0;
            for (const auto& [piece, line] : fullHoles) {
                const HoleKey key{piece.track, piece.startMs};
                if (!cut.count(key) && !again.count(key)) {
                    ++missed;
                    ADD_FAILURE() << "hole of track " << piece.track << " at " << piece.startMs
                                  << " ms neither cut nor in the resumed program (restart " << last.restartMs << ")";
                }
            }
            EXPECT_EQ(missed, 0u);
            // And the resume does not start over: far into the job it leaves holes out.
            if (cut.size() >= 40) {
                EXPECT_LT(again.size(), fullHoles.size());
            }
            ++resumes;
        }
    }
    EXPECT_GE(resumes, 28);
}

INSTANTIATE_TEST_SUITE_P(
    MachinesScalesCleanup, ResumeSweep,
    ::testing::Values(Scenario{"Laser", kKolbyName, "1"}, Scenario{"Laser", kAlderFennName, "0"},
                      Scenario{"Laser", kFileScale, "1"}, Scenario{"Punch", kKolbyName, "0"},
                      Scenario{"Punch", kAlderFennName, "1"}, Scenario{"Punch", kFileScale, "0"}),
    [](const ::testing::TestParamInfo<Scenario>& run) {
        std::string name = std::string(run.param.machine) + "_" + run.param.scale + "_cleanup" + run.param.cleanup;
        std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
        return name;
    });

}  // namespace
}  // namespace veltrin
