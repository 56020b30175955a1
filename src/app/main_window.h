#pragma once
// MainWindow: the desktop face of the application state. It shows the roll, the log, the
// console, the job's buttons and progress and the link's lamps, and passes every intent on to
// the core: the song import, the marks, the settings' change handlers, the machine link
// (through MachinePort). Nothing long runs inside a handler: the link is event-driven and the
// import of a song takes a fraction of a second, so the window keeps repainting and Stop
// always gets through.
// Use: create it on a state and a settings store, call startUp() (Form_Load, the glossary, the
// stored port), show it; openFiles() opens songs as "Open midi file..." does.

#include <QMainWindow>
#include <QStringList>

#include <memory>

#include "app/grbl_link.h"
#include "machine/firmware_upload.h"

class QAction;
class QLabel;
class QLineEdit;
class QMenu;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;

namespace veltrin {

struct AppState;
class MachinePort;
class RollViewWidget;
class SettingsDialog;
class SettingsStore;

class MainWindow : public QMainWindow, private JobHost {
    Q_OBJECT
public:
    MainWindow(AppState& state, SettingsStore& store, QWidget* parent = nullptr);
    ~MainWindow() override;

    // Form_Load: settings, folders, scale, the roll painted, the glossary, then the stored
    // port (or the scan). With openPort false the port is left alone (tests that open one).
    void startUp(bool openPort = true);
    // Opens songs (a MIDI file, a resume file, or several MIDI files, one roll each) as the
    // open command does once files are chosen; several files ask for the distance between
    // rolls first.
    void openFiles(const QStringList& paths);
    // The same with the distance already known.
    void openFilesWithGap(const QStringList& paths, int rollGapMm);

    MachinePort& machine();
    RollViewWidget& rollView();
    SettingsDialog& settingsDialog();
    // The window's busy flag: a job runs, or a song is being opened. Clicks on the roll do
    // nothing then.
    bool busy() const;
    // The menu entry with this text (first found), for the front end's own checks.
    QAction* action(const QString& text) const;

public slots:
    void Ouvre_midi();
    void Punch_button_Click();
    void Pause_button_Click();
    void Stop_button_Click();
    // Play_morceau_click ("play the song"): the song between the marks on the MIDI output (or
    // the built-in synthesizer); roll: the holes of the program as the organ will read them.
    void Play_morceau_click(bool roll = false);
    void Param_perf_Click();
    void Simulate_Click();
    void Label3_Click();
    void About_Click();
    void quitter_Click();
    // "Print / Export...": the roll at 1:1 on A4 or Letter sheets, as PDF or SVG.
    void printRoll_Click();
    void printRollTo(const QString& path);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    // JobHost: what the link asks of the window.
    bool hasNextRoll() override;
    int rollGapMm() override;
    std::optional<JobProgram> openNextRoll() override;
    void askYesNo(std::string_view question, bool defaultYes, std::function<void(bool)> answer) override;
    void showMessage(std::string_view text) override;
    void startBackwardFolds() override;

    void buildMenus();
    void buildWidgets();
    void connectMachine();
    void connectPlayback();
    // The "Folding marks file..." entry: the count of folds asked, then the program written.
    void foldFileDialog();
    void writeFoldFile(int count);
    // A "Grbl upload" entry: the image found beside the program, or chosen.
    void flashBoard(GrblBoard board);
    // "Verify": the program last written read back and checked against the song, the report in
    // the log. Before Punch, a program with faults asks "Punch anyway?" (No by default) and
    // false is returned; the job then starts only on Yes.
    bool verifyProgram(bool beforePunch);
    void startJob();
    // "Best transposition": the shift that loses the fewest notes, set and the program made.
    void bestTransposition_Click();
    // Form_KeyDown: the key table; true when the key was taken.
    bool Form_KeyDown(QKeyEvent* event);
    void Text1_KeyPress();
    void consoleHistory(int step);
    void stripMouseDown(Qt::MouseButton button, Qt::KeyboardModifiers modifiers, int strip, double x);
    void settingEdited(const QString& field);
    void regenerate();
    void afterGeneration(bool ok, const std::string& detail);
    void refreshRoll();
    // "Machine time (Grbl model) : ..." of the program last written, in the log.
    void logMachineTime();
    void refreshMarks();
    void refreshState();
    void refreshLog();
    void refreshLamps();
    void jobEnded(JobOutcome outcome);
    void jobRefused(const QString& why, bool laserModeOff);
    void jobHeld();
    void portFieldEdited();
    std::optional<JobProgram> readProgram(const std::string& path);
    void restoreLayout();
    void saveLayout();

    struct Private;
    std::unique_ptr<Private> d;
};

}  // namespace veltrin
