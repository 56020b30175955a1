// The main window as a maker uses it: real QSettings and Documents folders in temporary
// places, the bundled example song, and the Grbl emulator on a pseudo-terminal for the machine.
// Every wait has an upper bound.

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScopeGuard>
#include <QSettings>
#include <QSplitter>
#include <QTest>
#include <QTimer>

#include <filesystem>
#include <fstream>

#include "app/app_state.h"
#include "app/genere_gcode.h"
#include "app/main_window.h"
#include "app/settings_dialog.h"
#include "app/settings_store_qt.h"
#include "machine/serial_port_qt.h"
#include "support/emulator_process.h"
#include "support/temp_dir.h"
#include "view/roll_view_widget.h"

namespace veltrin {
namespace {

using test::EmulatorProcess;
using testing::TempDir;


class MainWindowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qputenv("VELTRIN_DOCUMENTS", QByteArray::fromStdString(m_documents.str()));
        QSettings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin")).clear();
        // A job writes its resume file beside the song: the song is a copy, in the test's folder.
        const auto song = m_documents.path() / "au-clair-de-la-lune.mid";
        std::filesystem::copy_file(VELTRIN_EXAMPLES_DIR "/au-clair-de-la-lune.mid", song);
        m_song = QString::fromStdString(song.string());
        m_window = std::make_unique<MainWindow>(m_state, m_store);
    }
    void TearDown() override
    {
        for (QWidget* w : QApplication::topLevelWidgets()) {
            if (qobject_cast<QMessageBox*>(w) || qobject_cast<QDialog*>(w))
                w->close();
        }
        m_window.reset();
    }

    MainWindow& window() { return *m_window; }
    std::string log() const { return m_state.user_msg_list.text(); }
    QString shownLog() { return m_window->findChild<QPlainTextEdit*>(QStringLiteral("user_msg_list"))->toPlainText(); }
    QPushButton* button(const char* name) { return m_window->findChild<QPushButton*>(QLatin1String(name)); }

    // Shows the window with the roll holding the focus, as after opening a song.
    void showAndFocus()
    {
        m_window->show();
        m_window->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(m_window.get()));
        m_window->rollView().setFocus();
        QApplication::processEvents();
    }
    void key(Qt::Key k, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        QWidget* target = QApplication::focusWidget() ? QApplication::focusWidget() : m_window.get();
        QTest::keyClick(target, k, modifiers);
    }
    // Opens the emulator's port in the window and waits for the detection.
    void connect(EmulatorProcess& emulator)
    {
        ASSERT_TRUE(emulator.start()) << emulator.errorText().toStdString();
        m_window->startUp(false);
        ASSERT_TRUE(m_window->machine().openPort(emulator.portPath()));
        ASSERT_TRUE(QTest::qWaitFor([&] { return m_state.connecte && !m_window->machine().link().detecting(); }, 10000));
        ASSERT_TRUE(m_state.ouvre_midi_actif) << log();
    }
    // The visible message box with this object name, or null.
    static QMessageBox* box(const char* name)
    {
        for (QWidget* w : QApplication::topLevelWidgets()) {
            if (w->objectName() == QLatin1String(name) && w->isVisible())
                return qobject_cast<QMessageBox*>(w);
        }
        return nullptr;
    }

    TempDir m_documents;
    QString m_song;
    AppState m_state;
    QtSettingsStore m_store;
    std::unique_ptr<MainWindow> m_window;
};

TEST_F(MainWindowTest, MenusCarryTheirTextsAndSongCommandsWaitForASong)
{
    window().startUp(false);
    QStringList menus;
    for (QAction* a : window().menuBar()->actions())
        menus << a->text();
    EXPECT_EQ(menus, QStringList({"File", "Folding marks", "Tools", "Play", "Zoom", "Help"}));
    for (const char* enabled : {"Open midi file...", "Quit", "Settings", "Simulate", "About", "Zoom in (h)",
                                "Zoom out (g)", "Default zoom (j)", "Live folding dots", "Uno - Uno rev3",
                                "Nano (new bootloader 01-2018)", "Nano (old bootloader)"}) {
        QAction* a = window().action(QLatin1String(enabled));
        ASSERT_NE(a, nullptr) << enabled;
        EXPECT_TRUE(a->isEnabled()) << enabled;
    }
    for (const char* needsSong : {"Play (p)", "Play the roll as cut", "Folding marks file..."}) {
        QAction* a = window().action(QLatin1String(needsSong));
        ASSERT_NE(a, nullptr) << needsSong;
        EXPECT_FALSE(a->isEnabled()) << needsSong;
    }
    ASSERT_NE(window().action(QStringLiteral("Grbl upload")), nullptr);
    EXPECT_EQ(window().findChild<QLineEdit*>(QStringLiteral("Text1"))->toolTip(), QStringLiteral("Grbl command"));
    EXPECT_EQ(button("Punch_button")->toolTip(), QStringLiteral("Punch start"));
    EXPECT_EQ(button("Stop_button")->toolTip(), QStringLiteral("Cancel punch"));
    EXPECT_EQ(window().findChild<QLineEdit*>(QStringLiteral("AdressePort"))->toolTip(), QStringLiteral("Port address"));
    // Nothing to punch and no job: only Punch could ever start, and it waits for a song.
    EXPECT_FALSE(button("Punch_button")->isEnabled());
    EXPECT_FALSE(button("Stop_button")->isEnabled());
}

TEST_F(MainWindowTest, QuitSavesTheSettingsAndTheNextWindowHasTheSameSizeAndSplitters)
{
    window().startUp(false);
    window().resize(1010, 690);
    auto* splitter = window().findChild<QSplitter*>(QStringLiteral("rollSplitter"));
    splitter->setSizes({200, 400});
    const QList<int> sizes = splitter->sizes();
    m_state.settings.Lgponts = "2.5";
    window().close();
    EXPECT_EQ(m_store.read("Lgponts"), "2.5");

    AppState state;
    MainWindow next(state, m_store);
    next.startUp(false);
    EXPECT_EQ(next.size(), QSize(1010, 690));
    EXPECT_EQ(next.findChild<QSplitter*>(QStringLiteral("rollSplitter"))->sizes(), sizes);
    EXPECT_EQ(state.settings.Lgponts, "2.5");
}

TEST_F(MainWindowTest, OpenedSongIsDrawnAndItsSettingEditsRedrawTheRoll)
{
    window().startUp(false);
    window().openFiles({m_song});
    ASSERT_FALSE(m_state.chemin_morceau.empty()) << log();
    const auto picture = window().rollView().picture();
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->holes.size(), m_state.List_GC_Ycroissant.size());
    EXPECT_TRUE(button("Punch_button")->isEnabled());
    EXPECT_TRUE(std::filesystem::exists(programPath(m_state)));
    EXPECT_TRUE(QTest::qWaitFor([&] { return shownLog().contains(QStringLiteral("Midi file de-assembling")); }, 2000));
    // Beside the writer's estimate, the time of Grbl's planner (Grbl's defaults: no board yet).
    // (logged once the roll is drawn, after the report)
    EXPECT_TRUE(QTest::qWaitFor([&] { return log().find("Machine time (Grbl model) : ") != std::string::npos; }, 3000))
        << log();
    // The roll on paper, true to scale.
    const QString pdf = QString::fromStdString((m_documents.path() / "roll.pdf").string());
    window().printRollTo(pdf);
    EXPECT_TRUE(QFileInfo::exists(pdf));
    EXPECT_NE(log().find("sheets at 1:1"), std::string::npos) << log();

    // A longer bridge cuts the notes into other pieces: the roll changes once typing pauses,
    // and Punch waits for the new program meanwhile.
    const std::size_t before = picture->holes.size();
    window().Param_perf_Click();
    auto* bridges = window().settingsDialog().findChild<QLineEdit*>(QStringLiteral("Lgponts"));
    ASSERT_NE(bridges, nullptr);
    bridges->selectAll();
    QTest::keyClicks(bridges, QStringLiteral("6"));
    EXPECT_FALSE(button("Punch_button")->isEnabled());
    ASSERT_TRUE(QTest::qWaitFor([&] { return window().rollView().picture() != picture; }, 3000));
    EXPECT_EQ(m_state.settings.Lgponts, "6");
    EXPECT_NE(window().rollView().picture()->holes.size(), before);
    EXPECT_TRUE(button("Punch_button")->isEnabled());

    // A value no program can be made with: the roll stays, Punch is refused.
    bridges->selectAll();
    QTest::keyClicks(bridges, QStringLiteral("abc"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return log().find("Program not written") != std::string::npos; }, 3000));
    EXPECT_FALSE(button("Punch_button")->isEnabled());
}

// Best transposition sets Transpose and remakes the program; Punch reads the program back
// first, and a program that lost a hole asks before any card is cut.
TEST_F(MainWindowTest, BestTranspositionThenPunchVerifiesTheProgramFirst)
{
    window().startUp(false);
    window().openFiles({m_song});
    window().action(QStringLiteral("Best transposition"))->trigger();
    EXPECT_NE(log().find("Best transposition"), std::string::npos) << log();
    EXPECT_NE(m_state.settings.Transpose, "auto");
    EXPECT_EQ(m_store.read("Transpose"), m_state.settings.Transpose);
    EXPECT_EQ(window().settingsDialog().findChild<QLineEdit*>(QStringLiteral("Transpose"))->text().toStdString(),
              m_state.settings.Transpose);

    // The first hole's lines taken out of the program, as a careless hand edit would.
    const std::string path = programPath(m_state);
    std::vector<std::string> lines;
    {
        std::ifstream in(path);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
    }
    ASSERT_FALSE(m_state.writtenHoles.empty());
    const auto first = static_cast<std::size_t>(m_state.writtenHoles.front().second);
    lines.erase(lines.begin() + static_cast<long>(first), lines.begin() + static_cast<long>(first + 5));
    {
        std::ofstream out(path);
        for (const std::string& line : lines)
            out << line << '\n';
    }
    window().Simulate_Click();
    QTest::mouseClick(button("Punch_button"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([] { return box("questionBox") != nullptr; }, 3000)) << log();
    EXPECT_NE(box("questionBox")->text().indexOf(QStringLiteral("Punch anyway?")), -1);
    box("questionBox")->button(QMessageBox::No)->click();
    QTest::qWait(100);
    EXPECT_FALSE(window().machine().link().jobRunning()) << "No: nothing is sent";
}

TEST_F(MainWindowTest, StripClicksSetTheMarksAndWriteThePartialProgram)
{
    showAndFocus();
    window().startUp(false);
    window().openFiles({m_song});
    RollViewWidget& roll = window().rollView();
    const RollLayout layout = roll.layout();
    const double mmPerSecond = roll.picture()->mmPerSecond;
    // Strip 1, 40 pixels in: (strip offset + x) / zoom mm along the roll.
    const int stripTop = layout.stripHeightPx;
    const QPoint onStrip1(40, stripTop + layout.stripHeightPx / 2);
    const double expectedMs = (layout.stripLengths()[0] + layout.scrollMm * layout.zoom + 40) / layout.zoom * 1000.0 / mmPerSecond;

    QTest::mouseClick(&roll, Qt::LeftButton, Qt::NoModifier, onStrip1);
    ASSERT_TRUE(m_state.debut_marque.has_value()) << log();
    EXPECT_NEAR(*m_state.debut_marque, expectedMs, 1000.0 / mmPerSecond / layout.zoom + 1e-6);
    const std::string partial = programPath(m_state);
    EXPECT_NE(partial.find("_between marks.gcode"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(partial));
    EXPECT_NE(log().find("Gcode writing between marks"), std::string::npos);

    // With a modifier: the end mark, further on; the middle button does nothing.
    const QPoint onStrip3(200, 3 * layout.stripHeightPx + layout.stripHeightPx / 2);
    QTest::mouseClick(&roll, Qt::LeftButton, Qt::ShiftModifier, onStrip3);
    EXPECT_GT(m_state.fin_marque, *m_state.debut_marque);
    EXPECT_LT(m_state.fin_marque, 500000.0);
    const double start = *m_state.debut_marque;
    const double end = m_state.fin_marque;
    QTest::mouseClick(&roll, Qt::MiddleButton, Qt::NoModifier, onStrip3);
    EXPECT_EQ(*m_state.debut_marque, start);
    EXPECT_EQ(m_state.fin_marque, end);
}

// P plays the song (here on the built-in synthesizer into ALSA's null device: no sound card);
// Punch waits while it plays and Stop ends it at once.
TEST_F(MainWindowTest, PlaysTheSongOnPAndStopEndsIt)
{
    TempDir home;
    testing::writeText(home.path() / ".asoundrc", "pcm.!default { type null }\n");
    const QByteArray oldHome = qgetenv("HOME");
    qputenv("HOME", QByteArray::fromStdString(home.str()));
    const auto restoreHome = qScopeGuard([&] { qputenv("HOME", oldHome); });
    showAndFocus();
    window().startUp(false);
    window().openFiles({m_song});
    window().rollView().setFocus();
    key(Qt::Key_P);
    ASSERT_TRUE(QTest::qWaitFor([&] { return log().find("Playing on") != std::string::npos; }, 10000)) << log();
    EXPECT_FALSE(button("Punch_button")->isEnabled());
    EXPECT_TRUE(button("Stop_button")->isEnabled());
    EXPECT_FALSE(window().action(QStringLiteral("Play (p)"))->isEnabled());
    // The view follows the music.
    ASSERT_TRUE(QTest::qWaitFor([&] { return window().rollView().scrollValue() > 20; }, 10000));
    QTest::mouseClick(button("Stop_button"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return button("Punch_button")->isEnabled(); }, 3000)) << log();
    EXPECT_FALSE(button("Stop_button")->isEnabled());
}

TEST_F(MainWindowTest, KeysSendTheirCommandsToTheMachineAndDriveTheView)
{
    TempDir record;
    const QString recordPath = QString::fromStdString((record.path() / "lines").string());
    EmulatorProcess emulator({"--factory-settings", "--speed", "0", "--record", recordPath});
    connect(emulator);
    m_state.settings.Laser_power = "640";
    showAndFocus();

    for (Qt::Key k : {Qt::Key_Left, Qt::Key_Up, Qt::Key_Right, Qt::Key_Down, Qt::Key_Z, Qt::Key_P, Qt::Key_L, Qt::Key_L})
        key(k, Qt::AltModifier);
    GrblLink& link = window().machine().link();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !link.commandPending(); }, 10000)) << log();

    std::vector<std::string> sent;
    std::ifstream in(recordPath.toStdString());
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            sent.push_back(line);
    }
    const std::vector<std::string> expected = {
        "$J=G91Y-50F800", "$J=G91X50F800", "$J=G91Y50F800", "$J=G91X-50F800", "$HX",
        "M03 S640",       "G1 F1000",      "G0 F1000 S0",                       // Alt+P: tool test
        "M03 S640",       "G1 F1000",      "G0 F1000 S0"};                      // Alt+L twice
    ASSERT_GE(sent.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(sent.end() - static_cast<long>(expected.size()), sent.end()), expected);
    EXPECT_FALSE(m_state.pointeur_laser);

    // Without Alt the keys drive the roll view.
    RollViewWidget& roll = window().rollView();
    const double zoom = roll.zoom();
    key(Qt::Key_H);
    EXPECT_GT(roll.zoom(), zoom);
    key(Qt::Key_J);
    EXPECT_DOUBLE_EQ(roll.zoom(), zoom);
    key(Qt::Key_G);
    EXPECT_LT(roll.zoom(), zoom);
}

TEST_F(MainWindowTest, ConsoleSendsAndWaitsAnnotatesSettingsAndKeepsAHistory)
{
    EmulatorProcess emulator({"--factory-settings", "--speed", "0"});
    connect(emulator);
    showAndFocus();
    auto* console = window().findChild<QLineEdit*>(QStringLiteral("Text1"));
    console->setFocus();
    QTest::keyClicks(console, QStringLiteral("$$"));
    QTest::keyClick(console, Qt::Key_Return);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window().machine().link().commandPending(); }, 5000)) << log();
    EXPECT_NE(log().find("$0=10 (Step pulse time)"), std::string::npos) << log();
    EXPECT_NE(log().find("$32=0 (Laser mode enable)"), std::string::npos);

    console->clear();
    QTest::keyClicks(console, QStringLiteral("G0 X1"));
    QTest::keyClick(console, Qt::Key_Return);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window().machine().link().commandPending(); }, 5000)) << log();
    QTest::keyClick(console, Qt::Key_Up);
    EXPECT_EQ(console->text(), QStringLiteral("G0 X1"));
    QTest::keyClick(console, Qt::Key_Up);
    EXPECT_EQ(console->text(), QStringLiteral("$$"));
    QTest::keyClick(console, Qt::Key_Down);
    EXPECT_EQ(console->text(), QStringLiteral("G0 X1"));

    // The port closed: the console says so and sends nothing.
    window().machine().closePort();
    QTest::keyClick(console, Qt::Key_Return);
    ASSERT_TRUE(QTest::qWaitFor([] { return box("messageBox") != nullptr; }, 2000));
    EXPECT_EQ(box("messageBox")->text(), QStringLiteral("Machine not connected"));
}

// A job against the emulator: progress, Pause and Continue, an error hold answered Continue,
// and a window that keeps serving its event loop all along.
TEST_F(MainWindowTest, PunchStreamsWithProgressPauseAndAnErrorHoldContinued)
{
    EmulatorProcess emulator({"--speed", "0", "--reply-delay-ms", "2", "--error-at", "300:20"});
    connect(emulator);
    showAndFocus();
    window().openFiles({m_song});
    ASSERT_TRUE(button("Punch_button")->isEnabled()) << log();

    int ticks = 0;
    QTimer heartbeat;
    QObject::connect(&heartbeat, &QTimer::timeout, [&] { ++ticks; });
    heartbeat.start(20);
    QElapsedTimer clock;
    clock.start();
    QTest::mouseClick(button("Punch_button"), Qt::LeftButton);
    EXPECT_FALSE(button("Punch_button")->isEnabled());
    EXPECT_TRUE(button("Stop_button")->isEnabled());
    EXPECT_FALSE(window().action(QStringLiteral("Settings"))->isEnabled());

    ASSERT_TRUE(QTest::qWaitFor([] { return box("holdBox") != nullptr; }, 20000)) << log();
    EXPECT_NE(box("holdBox")->text().indexOf(QStringLiteral("error:20")), -1) << box("holdBox")->text().toStdString();
    QPushButton* go = nullptr;
    for (QAbstractButton* b : box("holdBox")->buttons()) {
        if (b->text() == QLatin1String("Continue"))
            go = qobject_cast<QPushButton*>(b);
    }
    ASSERT_NE(go, nullptr);
    go->click();

    // Pause a little later, then Continue.
    auto* gauge = window().findChild<QProgressBar*>(QStringLiteral("gauge1"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return gauge->value() > 400; }, 20000)) << log();
    QTest::mouseClick(button("Pause_button"), Qt::LeftButton);
    EXPECT_EQ(button("Pause_button")->text(), QStringLiteral("Resume"));
    const int paused = gauge->value();
    QTest::qWait(300);
    EXPECT_LE(gauge->value(), paused + 17) << "a paused job sends nothing beyond the line in flight";
    QTest::mouseClick(button("Pause_button"), Qt::LeftButton);
    EXPECT_EQ(button("Pause_button")->text(), QStringLiteral("Pause"));

    ASSERT_TRUE(QTest::qWaitFor([&] { return !window().machine().link().jobRunning(); }, 60000)) << log();
    EXPECT_NE(log().find("End of punch"), std::string::npos) << log();
    EXPECT_EQ(gauge->value(), gauge->maximum());
    EXPECT_TRUE(button("Punch_button")->isEnabled());
    // The event loop was never blocked: the heartbeat kept its pace through the whole job.
    EXPECT_GT(ticks, static_cast<int>(clock.elapsed() / 20 / 2)) << ticks << " ticks in " << clock.elapsed() << " ms";
    // A laser job ends with the fold question (default No).
    ASSERT_TRUE(QTest::qWaitFor([] { return box("questionBox") != nullptr; }, 3000));
    EXPECT_EQ(box("questionBox")->text(), QStringLiteral("Cutting folds backwardly ?"));
    EXPECT_EQ(box("questionBox")->defaultButton(), box("questionBox")->button(QMessageBox::No));
}

// "Live folding dots" turns Punch into Fold; Fold marks fold after fold until Stop, which
// finishes the fold in progress and turns the laser off.
TEST_F(MainWindowTest, LiveFoldingDotsFromTheMenuMarkFoldsUntilStop)
{
    TempDir record;
    const QString recordPath = QString::fromStdString((record.path() / "lines").string());
    EmulatorProcess emulator({"--speed", "20", "--record", recordPath});
    connect(emulator);
    showAndFocus();
    window().action(QStringLiteral("Live folding dots"))->trigger();
    EXPECT_EQ(button("Punch_button")->text(), QStringLiteral("Fold"));
    ASSERT_TRUE(button("Punch_button")->isEnabled()) << "no song is needed to mark folds";
    EXPECT_NE(log().find("Set the first fold under the laser ray and hit the Fold button"), std::string::npos);
    QTest::mouseClick(button("Punch_button"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return log().find("M3 S") != std::string::npos; }, 10000)) << log();
    EXPECT_FALSE(button("Pause_button")->isEnabled());
    QTest::mouseClick(button("Stop_button"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window().machine().link().jobRunning(); }, 60000)) << log();
    std::ifstream in(recordPath.toStdString());
    std::string last;
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            last = line;
    EXPECT_EQ(last.substr(0, 5), "M5 S0") << "the laser is off at the end";
    EXPECT_EQ(button("Punch_button")->text(), QStringLiteral("Punch"));
}

TEST_F(MainWindowTest, ErrorHoldAnsweredStopCancelsTheJob)
{
    EmulatorProcess emulator({"--speed", "0", "--error-at", "40:20"});
    connect(emulator);
    showAndFocus();
    window().openFiles({m_song});
    QTest::mouseClick(button("Punch_button"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([] { return box("holdBox") != nullptr; }, 20000)) << log();
    // The roll is busy during the job: a click sets no mark.
    RollViewWidget& roll = window().rollView();
    QTest::mouseClick(&roll, Qt::LeftButton, Qt::NoModifier, QPoint(30, roll.layout().stripHeightPx / 2));
    EXPECT_FALSE(m_state.debut_marque.has_value());
    for (QAbstractButton* b : box("holdBox")->buttons()) {
        if (b->text() == QLatin1String("Stop"))
            b->click();
    }
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window().machine().link().jobRunning(); }, 20000)) << log();
    EXPECT_NE(log().find("Punch cancelled"), std::string::npos) << log();
    EXPECT_EQ(log().find("End of punch"), std::string::npos);
    EXPECT_TRUE(button("Punch_button")->isEnabled());
}

TEST_F(MainWindowTest, LaserJobOnABoardInLaserModeOffOffersToTurnItOn)
{
    EmulatorProcess emulator({"--speed", "0", "--laser-mode", "0", "--record", "/dev/null"});
    connect(emulator);
    showAndFocus();
    window().openFiles({m_song});
    QTest::mouseClick(button("Punch_button"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([] { return box("laserModeBox") != nullptr; }, 20000)) << log();
    EXPECT_NE(log().find("Laser mode is off ($32=0)"), std::string::npos);
    box("laserModeBox")->button(QMessageBox::Yes)->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return log().find("Laser mode on ($32=1)") != std::string::npos; }, 10000))
        << log();
    // Punch again: the job now starts.
    QTest::mouseClick(button("Punch_button"), Qt::LeftButton);
    auto* gauge = window().findChild<QProgressBar*>(QStringLiteral("gauge1"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return gauge->value() > 20; }, 20000)) << log();
    window().Stop_button_Click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window().machine().link().jobRunning(); }, 20000)) << log();
}

}  // namespace
}  // namespace veltrin
