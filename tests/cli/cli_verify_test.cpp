// veltrin-cli verify and roll-midi, run as a user would: programs of real songs as convert
// writes them, the same programs edited (a hole removed, a hole moved, a bridge cut away, a
// strike doubled), and a program written by hand.

#include <algorithm>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/numeric_text.h"
#include "support/midi_bytes.h"
#include "support/run_cli.h"

namespace veltrin {
namespace {

using testing::readText;
using testing::textLines;
using Lines = std::vector<std::string>;

class CliVerify : public ::testing::Test {
protected:
    testing::CliRun cli(const Lines& args) const
    {
        return testing::runCli("LC_ALL=C VELTRIN_DOCUMENTS=" + testing::quoted(dir.str()) +
                                   " XDG_CONFIG_HOME=" + testing::quoted((dir.path() / "config").string()),
                               args);
    }

    // convert SONG --defaults ... --out PROGRAM; the program's lines.
    Lines convert(const std::string& song, const Lines& options) const
    {
        Lines args{"convert", song, "--defaults", "--out", program()};
        args.insert(args.end(), options.begin(), options.end());
        const testing::CliRun run = cli(args);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return textLines(readText(program()));
    }

    testing::CliRun verify(const std::string& song) const
    {
        return song.empty() ? cli({"verify", program(), "--defaults"}) : cli({"verify", program(), song, "--defaults"});
    }

    void write(const Lines& lines) const
    {
        std::string text;
        for (const std::string& line : lines)
            text += line + "\r\n";
        testing::writeText(program(), text);
    }

    std::string program() const { return (dir.path() / "roll.gcode").string(); }
    static std::string realSong(const std::string& name) { return std::string(TEST_DATA_DIR) + "/midi/" + name; }

    testing::TempDir dir;
};

std::string verdict(const testing::CliRun& run)
{
    const Lines lines = textLines(run.out);
    return lines.empty() ? std::string() : lines.back();
}

TEST_F(CliVerify, OurProgramsOfRealSongsPlayTheirSongAsPlanned)
{
    for (const char* name : {"frere-jacques.mid", "greensleeves.mid", "lavenders-blue.mid"}) {
        for (const Lines& options : {Lines{"--machine", "laser"}, Lines{"--machine", "punch"},
                                     Lines{"--machine", "laser", "--scale", "Alder Fenn 20", "--set", "Transpose=auto"},
                                     Lines{"--machine", "punch", "--set", "Channels=1-16", "--set", "Transpose=-2"}}) {
            convert(realSong(name), options);
            const testing::CliRun run = verify(realSong(name));
            EXPECT_EQ(run.exitCode, 0) << name << " " << options[1] << "\n" << run.out << run.err;
            EXPECT_EQ(verdict(run), "No problem found: the program plays the song as planned") << name;
        }
    }
    // Between marks: the record beside the program names them.
    const std::filesystem::path between = dir.path() / "Veltrin" / "Temp" / "greensleeves_between marks.gcode";
    ASSERT_EQ(cli({"convert", realSong("greensleeves.mid"), "--defaults", "--start-mark", "20000.4", "--end-mark",
                   "60000"})
                  .exitCode,
              0);
    const testing::CliRun run = cli({"verify", between.string(), realSong("greensleeves.mid"), "--defaults"});
    EXPECT_EQ(run.exitCode, 0) << run.out;
    EXPECT_NE(run.out.find("Settings : those the program was made with"), std::string::npos) << run.out;
}

// The lines of each hole: a laser hole is its "G0 X.. Y.." line and the four cuts after it, a
// punch hole its "G0" line and its strike.
struct Hole {
    std::size_t line;
    double x;
    double y1;
    double y2;  // laser: the far end
};

std::vector<Hole> holesOf(const Lines& lines, bool laser)
{
    std::vector<Hole> holes;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (!lines[i].starts_with("G0 X"))
            continue;
        const double x = leadingNumber(lines[i].substr(4));
        const double y1 = leadingNumber(lines[i].substr(lines[i].find(" Y") + 2));
        holes.push_back({i, x, y1, laser ? leadingNumber(lines[i + 2].substr(4)) : y1});
    }
    return holes;
}

std::string withY(const std::string& line, double y)
{
    const std::size_t at = line.find('Y');
    const std::size_t end = line.find(' ', at);
    return line.substr(0, at + 1) + plainNumber(y) + (end == std::string::npos ? "" : line.substr(end));
}

TEST_F(CliVerify, EachEditThatChangesWhatTheOrganPlaysIsReported)
{
    struct Edit {
        const char* what;
        const char* machine;
        std::function<void(Lines&)> apply;
        const char* verdict;
        const char* problem;  // the start of the problem's line
    };
    const Edit edits[] = {
        {"a hole removed", "laser",
         [](Lines& lines) {
             const Hole h = holesOf(lines, true)[200];
             lines.erase(lines.begin() + static_cast<long>(h.line), lines.begin() + static_cast<long>(h.line) + 5);
         },
         "1 problem (1 note missing)", "   - note missing: "},
        {"a hole moved 1 mm along the roll", "laser",
         [](Lines& lines) {
             const Hole h = holesOf(lines, true)[300];
             for (std::size_t k : {h.line, h.line + 4})
                 lines[k] = withY(lines[k], h.y1 + 1.0);
             lines[h.line + 2] = withY(lines[h.line + 2], h.y2 + 1.0);
         },
         "1 problem (1 note shifted)", "   - note shifted: "},
        {"a bridge cut away", "laser",
         [](Lines& lines) {
             // Two pieces of one note, a bridge apart: the first runs on to the second's end.
             const std::vector<Hole> holes = holesOf(lines, true);
             for (const Hole& a : holes) {
                 const auto b = std::find_if(holes.begin(), holes.end(), [&](const Hole& h) {
                     return h.x == a.x && std::abs(h.y1 - a.y2 - 1.5) < 1e-6;
                 });
                 if (b == holes.end())
                     continue;
                 lines[a.line + 2] = withY(lines[a.line + 2], b->y2);
                 lines.erase(lines.begin() + static_cast<long>(b->line), lines.begin() + static_cast<long>(b->line) + 5);
                 return;
             }
             FAIL() << "no bridge in the program";
         },
         "1 problem (1 slot with no bridge)", "   - slot with no bridge: "},
        {"a strike removed", "punch",
         [](Lines& lines) {
             const Hole h = holesOf(lines, false)[100];
             // The strikes alternate Z: the one after it takes its Z.
             lines.erase(lines.begin() + static_cast<long>(h.line), lines.begin() + static_cast<long>(h.line) + 2);
             for (std::size_t k = h.line; k < lines.size(); ++k) {
                 if (lines[k].starts_with("G1 Z"))
                     lines[k] = lines[k] == "G1 Z1" ? "G1 Z-1" : "G1 Z1";
             }
         },
         "1 problem (1 note missing)", "   - note missing: "},
        {"a strike struck twice more", "punch",
         [](Lines& lines) {
             const Hole h = holesOf(lines, false)[100];
             const std::string strike = lines[h.line + 1];
             const std::string back = strike == "G1 Z1" ? "G1 Z-1" : "G1 Z1";
             lines.insert(lines.begin() + static_cast<long>(h.line) + 2, {back, strike});
         },
         "4 problems (2 notes extra, 2 double cuts)", "   - double cut: "},
    };
    for (const Edit& edit : edits) {
        Lines lines = convert(realSong("greensleeves.mid"), {"--machine", edit.machine});
        edit.apply(lines);
        write(lines);
        const testing::CliRun run = verify(realSong("greensleeves.mid"));
        EXPECT_EQ(run.exitCode, 1) << edit.what;
        EXPECT_EQ(verdict(run), std::string(edit.verdict) + ": the program would not play the song as planned")
            << edit.what << "\n" << run.out;
        const Lines out = textLines(run.out);
        EXPECT_TRUE(std::any_of(out.begin(), out.end(), [&](const std::string& l) { return l.starts_with(edit.problem); }))
            << edit.what << "\n" << run.out;
        EXPECT_NE(run.out.find("the program was changed since"), std::string::npos) << run.out;
    }
}

// Two notes of the 27-29 scale at 60 mm/s: C3 on track 5 (X 25.8 to 28.8), D3 on track 6.
TEST_F(CliVerify, AProgramWrittenByHandIsReadWithItsCommentsAndSpacing)
{
    const std::string song = (dir.path() / "two.mid").string();
    testing::writeFile(song, testing::midiFile({{0, 200, 60}, {1000, 1200, 62}}));
    const Lines hand = {"(made by hand)",       "G21 G90 ; mm, absolute", "$HX",       "G92 X5 Y0 Z-1",
                        "M3 S1000",             "g0 x25.8 y0",            "g1 x28.8 f600", "g1 y12",
                        "g1 x25.8",             "g1 y0",                  "G0X30Y60",  "G1X33 Y60   ;( not a comment",
                        "G1 Y72.000 (far end)", "  G1   X30",             "G1 Y60",    "M5"};
    write(hand);
    testing::CliRun run = verify(song);
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_EQ(textLines(run.out).at(1), "Settings : the current ones (no record beside the program)");
    EXPECT_EQ(textLines(run.out).at(3), "Roll read back : 2 holes on 2 tracks, 2 notes from 0:00.0 to 0:01.2");

    write(Lines(hand.begin(), hand.begin() + 11));  // the second cut stops at its first side
    run = verify(song);
    EXPECT_EQ(run.exitCode, 1);
    const Lines out = textLines(run.out);
    EXPECT_NE(std::find(out.begin(), out.end(), "   - note missing: D3 at 0:01.0 on track 6, 1 hole of the plan not made"),
              out.end())
        << run.out;
    run = verify("");
    EXPECT_EQ(run.exitCode, 0) << "on its own, one hole less is no fault";
    EXPECT_EQ(verdict(run), "No problem found in the program (not compared with a song)");

    EXPECT_EQ(cli({"verify", (dir.path() / "none.gcode").string()}).exitCode, 2);
    EXPECT_EQ(cli({"verify", program(), song, "--defaults", "--set", "Channels=0"}).exitCode, 2);
}

TEST_F(CliVerify, RollMidiWritesTheNotesTheOrganPlays)
{
    convert(realSong("frere-jacques.mid"), {"--machine", "laser"});
    const std::string out = (dir.path() / "roll.mid").string();
    const testing::CliRun run = cli({"roll-midi", program(), out, "--defaults"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Lines said = textLines(run.out);
    ASSERT_EQ(said.size(), 2u);
    const long notes = static_cast<long>(leadingNumber(said[1]));
    EXPECT_EQ(said[1], std::to_string(notes) + " notes written to " + out);
    // Played back through the decoder: as many notes, at the holes' times and pitches.
    const Lines decoded = textLines(cli({"decode", out}).out);
    EXPECT_EQ(std::count_if(decoded.begin(), decoded.end(), [](const std::string& l) { return l.starts_with("NOTE"); }),
              notes);
    const std::vector<Hole> holes = holesOf(textLines(readText(program())), true);
    const double firstY = std::min_element(holes.begin(), holes.end(), [](const Hole& a, const Hole& b) {
                              return a.y1 < b.y1;
                          })->y1;
    double firstStart = 1e300;  // a NOTE line stands at its note's end: the earliest start
    for (const std::string& line : decoded) {
        if (line.starts_with("NOTE"))
            firstStart = std::min(firstStart, leadingNumber(line.substr(5, 7)));
    }
    EXPECT_EQ(firstStart, std::round(firstY * 1000.0 / 60.0));

    EXPECT_EQ(cli({"roll-midi", program(), program(), "--defaults"}).exitCode, 2) << "never over the program";
    EXPECT_EQ(cli({"roll-midi", program(), dir.str(), "--defaults"}).exitCode, 2);
}

}  // namespace
}  // namespace veltrin
