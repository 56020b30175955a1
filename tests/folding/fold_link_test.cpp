// The fold marking on the machine link: arming, the refusals, and the commands the Grbl
// emulator receives through the real serial port code. Every wait has an upper bound.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <fstream>
#include <functional>
#include <unistd.h>

#include "app/app_state.h"
#include "app/grbl_link.h"
#include "machine/serial_port_qt.h"
#include "support/emulator_process.h"
#include "support/wait_until.h"

namespace veltrin {
namespace {

using Lines = std::vector<std::string>;

using testing::waitUntil;

class Host : public JobHost {
public:
    bool hasNextRoll() override { return false; }
    int rollGapMm() override { return 0; }
    std::optional<JobProgram> openNextRoll() override { return std::nullopt; }
    void askYesNo(std::string_view question, bool, std::function<void(bool)> answer) override
    {
        questions.emplace_back(question);
        answer(true);
    }
    void showMessage(std::string_view text) override { messages.emplace_back(text); }
    void startBackwardFolds() override
    {
        if (backward)
            backward();
    }
    Lines questions;
    Lines messages;
    std::function<void()> backward;
};

// A 2-track book: the dashes run from 5.3 to 7.3 and 9.5 to 11.5 (Talon 6.3, pitch 4.2).
void twoTrackBook(AppState& state)
{
    state.scale.nb_notes = 2;
    state.scale.longueur_pli = 160;
}

TEST(FoldLink, ArmingAndTheRefusalsBeforeAnyCommand)
{
    AppState state;
    GrblLink link(state);
    Host host;
    link.setHost(&host);
    state.scale.longueur_pli = 0;
    EXPECT_FALSE(link.Marque_plis_Click());
    EXPECT_EQ(host.messages, Lines{"Folds length not defined"});
    EXPECT_EQ(link.punchCaption(), "Punch");

    twoTrackBook(state);
    ASSERT_TRUE(link.Marque_plis_Click());
    EXPECT_EQ(link.punchCaption(), "Fold");
    EXPECT_NE(state.user_msg_list.text().find("Set the first fold under the laser ray and hit the Fold button\r\n"),
              std::string::npos);

    host.messages.clear();
    EXPECT_FALSE(link.marquage_plis());
    EXPECT_FALSE(link.marquage_plis_arriere(500));
    EXPECT_EQ(host.messages, (Lines{"Machine non connectée", "Machine non connectée"}));
    EXPECT_TRUE(link.takeActions().empty()) << "nothing is written";
}

// After a laser job that reached y_max 339 mm: fold 1 (at or below 319 mm), then fold 0.
TEST(FoldLink, BackwardAfterALaserJobAgainstTheEmulator)
{
    test::EmulatorProcess::ensureApplication();
    QTemporaryDir dir;
    const QString record = dir.filePath("record.txt");
    test::EmulatorProcess emulator({"--record", record, "--speed", "0", "--boot-ms", "100"});
    ASSERT_TRUE(emulator.start()) << emulator.errorText().toStdString();
    AppState state;
    twoTrackBook(state);
    state.y_max = 339;
    state.arret_demande = true;
    MachinePort port(state);
    Host host;
    host.backward = [&] { port.link().marquage_plis_arriere(state.y_max); };
    port.link().setHost(&host);
    std::vector<std::pair<FoldOutcome, int>> ends;
    QObject::connect(&port, &MachinePort::foldMarkingEnded, [&](FoldOutcome o, int folds) { ends.emplace_back(o, folds); });
    ASSERT_TRUE(port.openPort(emulator.portPath()));
    ASSERT_TRUE(waitUntil([&] { return state.connecte; }, 8000));

    JobProgram job;
    job.lines = {"$HX", "G92 X5 Y0 Z-1", "M3 S1000", "G0 X6.3 Y300", "G1 X9.3 F800", "G0 M5 S0"};
    ASSERT_TRUE(port.punch(job));
    ASSERT_TRUE(waitUntil([&] { return !ends.empty(); }, 20000)) << state.user_msg_list.text();
    EXPECT_EQ(host.questions, Lines{"Cutting folds backwardly ?"});
    EXPECT_EQ(ends[0], std::make_pair(FoldOutcome::Done, 2));
    EXPECT_FALSE(state.arret_demande) << "the backward marking clears the stop flag";
    std::ifstream file(record.toStdString());
    Lines received;
    for (std::string line; std::getline(file, line);) {
        if (!received.empty() || line == "G0 M5 S0")
            received.push_back(line);
    }
    EXPECT_EQ(received, (Lines{"G0 M5 S0", "$$", "G0 Y160", "M3 S1000", "F800",                  // job's end, travel
                               "G0 Y160 X5.3", "G0 X5.3", "G1 X7.3", "G0 X9.5", "G1 X11.5",  // fold 1
                               "G0 Y0 X5.3", "G0 X5.3", "G1 X7.3", "G0 X9.5", "G1 X11.5",    // fold 0
                               "M5 S0"}));
}

}  // namespace
}  // namespace veltrin
