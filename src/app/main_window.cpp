#include "app/main_window.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollBar>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

#include <fstream>
#include <iterator>

#include "app/app_state.h"
#include "app/arranging.h"
#include "app/folders_qt.h"
#include "app/genere_gcode.h"
#include "app/marks.h"
#include "folding/fold_commands.h"
#include "folding/fold_program.h"
#include "machine/firmware_upload.h"
#include "machine/process_runner_qt.h"
#include "app/playback_plan.h"
#include "app/roll_snapshot.h"
#include "app/settings_dialog.h"
#include "app/settings_edit.h"
#include "app/settings_store.h"
#include "app/song_import.h"
#include "app/startup.h"
#include "machine/grbl_planner.h"
#include "machine/grbl_protocol.h"
#include "machine/serial_port_qt.h"
#include "view/playback_qt.h"
#include "view/roll_print_qt.h"
#include "view/roll_view_widget.h"

#ifndef VELTRIN_VERSION
#define VELTRIN_VERSION "0"
#endif

namespace veltrin {

namespace {

// A setting edit is taken up once typing pauses this long, so that "1.5" is one generation,
// not three (and a half-typed "1." is never refused).
constexpr int kRegenerateAfterMs = 250;
// How often the job's progress, the remaining time and the head are redrawn while connected.
constexpr int kRefreshMs = 200;

const char* const kOpenText = "Open midi file...";
#ifndef VELTRIN_SOURCE_DIR
#define VELTRIN_SOURCE_DIR ""
#endif

// The project's page: its README, installed beside the program or in the source tree.
QUrl projectPage()
{
    const QString app = QCoreApplication::applicationDirPath();
    for (const QString& path : {app + QStringLiteral("/../share/doc/veltrin/README.md"),
                                app + QStringLiteral("/README.md"),
                                QStringLiteral(VELTRIN_SOURCE_DIR "/README.md")}) {
        if (QFileInfo::exists(path))
            return QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath());
    }
    return QUrl::fromLocalFile(QStringLiteral(VELTRIN_SOURCE_DIR "/README.md"));
}

QString qs(std::string_view text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// Settings that take no part in the program: editing them regenerates nothing.
bool changesProgram(const QString& field)
{
    return field != QLatin1String("AdressePort") && field != QLatin1String("longueur_point") &&
           !field.startsWith(QLatin1String("duree_"));
}

// The "$$" answer of each port's machine, kept between runs.
QString machineKey(const QString& port)
{
    QString key = port;
    key.replace(QLatin1Char('/'), QLatin1Char('_'));
    return QStringLiteral("Machines/") + key;
}

QStringList storedMachineSettings(const QString& port)
{
    return QSettings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin")).value(machineKey(port)).toStringList();
}

void storeMachineSettings(const QString& port, const QStringList& lines)
{
    QSettings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin")).setValue(machineKey(port), lines);
}

// A round lamp (Shape1, the simulation lamp).
void setLamp(QLabel* lamp, const QColor& colour)
{
    lamp->setStyleSheet(QStringLiteral("background-color: %1; border: 1px solid #555; border-radius: 7px;")
                            .arg(colour.name()));
}

QColor lampColour(StatusLamp lamp)
{
    switch (lamp) {
    case StatusLamp::Yellow:
        return QColor(255, 255, 0);
    case StatusLamp::Green:
        return QColor(0, 255, 0);
    case StatusLamp::Red:
        break;
    }
    return QColor(255, 0, 0);
}

}  // namespace

struct MainWindow::Private {
    AppState* state = nullptr;
    SettingsStore* store = nullptr;
    std::unique_ptr<MachinePort> port;

    RollViewWidget* roll = nullptr;
    SettingsDialog* settings = nullptr;
    QLineEdit* Text1 = nullptr;
    QPlainTextEdit* user_msg_list = nullptr;
    QPushButton* Punch_button = nullptr;
    QPushButton* Pause_button = nullptr;
    QPushButton* Stop_button = nullptr;
    QProgressBar* gauge1 = nullptr;
    QLineEdit* Text2 = nullptr;
    QLineEdit* AdressePort = nullptr;
    QLabel* Shape1 = nullptr;
    QLabel* Label3 = nullptr;
    QLabel* simulationLamp = nullptr;
    QLabel* statusSong = nullptr;
    QLabel* statusScale = nullptr;
    QLabel* statusMachine = nullptr;
    QSplitter* vertical = nullptr;
    QSplitter* horizontal = nullptr;
    QMenu* zoomMenu = nullptr;
    QAction* openAction = nullptr;
    QAction* settingsAction = nullptr;
    QAction* simulateAction = nullptr;
    QAction* droppedAction = nullptr;

    QTimer regenerateTimer;
    QTimer refreshTimer;
    bool regenerateAll = false;
    bool regenerateBands = false;
    bool importing = false;
    bool logDue = false;
    std::string shownLog;
    QStringList history;
    int historyIndex = 0;
    QString pendingCommand;
    int holdsSeen = 0;
    // The lines acknowledged by the last job: its cut holes stay drawn until the roll changes.
    int lastProgress = -1;
    QMessageBox* holdBox = nullptr;
    bool quitting = false;
    std::shared_ptr<const RollPicture> picture;
    PlaybackController playback;
    FirmwareUpload* upload = nullptr;
    QMenu* uploadMenu = nullptr;
    QAction* liveFoldsAction = nullptr;
    QAction* foldFileAction = nullptr;
    int foldHoldsSeen = 0;
    bool machineTimeDue = false;
    QAction* bestTranspositionAction = nullptr;
    QAction* verifyAction = nullptr;
    QAction* printAction = nullptr;
    QAction* playAction = nullptr;
    QAction* playRollAction = nullptr;
};

MainWindow::MainWindow(AppState& state, SettingsStore& store, QWidget* parent)
    : QMainWindow(parent), d(std::make_unique<Private>())
{
    d->state = &state;
    d->store = &store;
    state.machineTimeInReport = false;
    d->port = std::make_unique<MachinePort>(state);
    d->port->link().setHost(this);
    d->upload = new FirmwareUpload(*d->port, this);
    d->upload->setHost(this);
    connect(d->upload, &FirmwareUpload::runningChanged, this, &MainWindow::refreshState);
    setObjectName(QStringLiteral("MainWindow"));
    setWindowTitle(QStringLiteral("Veltrin"));
    d->settings = new SettingsDialog(state, store, this);
    buildWidgets();
    buildMenus();
    connectMachine();
    connectPlayback();

    d->regenerateTimer.setSingleShot(true);
    d->regenerateTimer.setInterval(kRegenerateAfterMs);
    connect(&d->regenerateTimer, &QTimer::timeout, this, &MainWindow::regenerate);
    d->refreshTimer.setInterval(kRefreshMs);
    connect(&d->refreshTimer, &QTimer::timeout, this, &MainWindow::refreshState);
    d->refreshTimer.start();
    connect(d->settings, &SettingsDialog::settingEdited, this, &MainWindow::settingEdited);

    // The log is shown as the state holds it; appends are gathered and shown once per turn
    // of the event loop, so a job's lines do not redraw the log one by one.
    state.user_msg_list.setListener([this](std::string_view) {
        if (d->logDue)
            return;
        d->logDue = true;
        QTimer::singleShot(0, this, &MainWindow::refreshLog);
    });
    qApp->installEventFilter(this);
    restoreLayout();
}

MainWindow::~MainWindow()
{
    qApp->removeEventFilter(this);
    d->state->user_msg_list.setListener({});
    d->port->link().setHost(nullptr);
}

MachinePort& MainWindow::machine()
{
    return *d->port;
}

RollViewWidget& MainWindow::rollView()
{
    return *d->roll;
}

SettingsDialog& MainWindow::settingsDialog()
{
    return *d->settings;
}

bool MainWindow::busy() const
{
    return d->importing || d->port->link().jobRunning();
}

QAction* MainWindow::action(const QString& text) const
{
    for (QAction* a : findChildren<QAction*>()) {
        if (a->text() == text)
            return a;
    }
    return nullptr;
}

// --- construction ---

void MainWindow::buildWidgets()
{
    d->roll = new RollViewWidget;
    d->roll->setObjectName(QStringLiteral("Picture1"));
    connect(d->roll, &RollViewWidget::stripMouseDown, this, &MainWindow::stripMouseDown);
    connect(d->roll, &RollViewWidget::zoomChanged, this, [this](double zoom) { d->state->facteur_zoom = zoom; });

    d->Text1 = new QLineEdit;
    d->Text1->setObjectName(QStringLiteral("Text1"));
    d->Text1->setToolTip(QStringLiteral("Grbl command"));
    d->Text1->setPlaceholderText(QStringLiteral("Grbl command ($$, $HX, G0 X10 ...)"));
    connect(d->Text1, &QLineEdit::returnPressed, this, &MainWindow::Text1_KeyPress);

    d->user_msg_list = new QPlainTextEdit;
    d->user_msg_list->setObjectName(QStringLiteral("user_msg_list"));
    d->user_msg_list->setReadOnly(true);
    d->user_msg_list->setToolTip(QStringLiteral("User messages"));
    d->user_msg_list->setLineWrapMode(QPlainTextEdit::WidgetWidth);
    QFont mono(QStringLiteral("Monospace"));
    mono.setStyleHint(QFont::TypeWriter);
    d->user_msg_list->setFont(mono);

    auto* logBox = new QGroupBox(QStringLiteral("User messages"));
    auto* logLayout = new QVBoxLayout(logBox);
    logLayout->addWidget(d->user_msg_list, 1);
    logLayout->addWidget(d->Text1);

    d->Punch_button = new QPushButton(QStringLiteral("Punch"));
    d->Punch_button->setObjectName(QStringLiteral("Punch_button"));
    d->Punch_button->setToolTip(QStringLiteral("Punch start"));
    d->Pause_button = new QPushButton(QStringLiteral("Pause"));
    d->Pause_button->setObjectName(QStringLiteral("Pause_button"));
    d->Pause_button->setToolTip(QStringLiteral("Pause or resume punch"));
    d->Stop_button = new QPushButton(QStringLiteral("Stop"));
    d->Stop_button->setObjectName(QStringLiteral("Stop_button"));
    d->Stop_button->setToolTip(QStringLiteral("Cancel punch"));
    for (QPushButton* button : {d->Punch_button, d->Pause_button, d->Stop_button}) {
        button->setFocusPolicy(Qt::NoFocus);
        button->setMinimumHeight(34);
    }
    connect(d->Punch_button, &QPushButton::clicked, this, &MainWindow::Punch_button_Click);
    connect(d->Pause_button, &QPushButton::clicked, this, &MainWindow::Pause_button_Click);
    connect(d->Stop_button, &QPushButton::clicked, this, &MainWindow::Stop_button_Click);

    d->gauge1 = new QProgressBar;
    d->gauge1->setObjectName(QStringLiteral("gauge1"));
    d->gauge1->setRange(0, 1);
    d->gauge1->setValue(0);
    d->Text2 = new QLineEdit(QStringLiteral("00:00:00"));
    d->Text2->setObjectName(QStringLiteral("Text2"));
    d->Text2->setToolTip(QStringLiteral("Time"));
    d->Text2->setReadOnly(true);
    d->Text2->setAlignment(Qt::AlignCenter);
    d->Text2->setFocusPolicy(Qt::NoFocus);

    d->AdressePort = new QLineEdit;
    d->AdressePort->setObjectName(QStringLiteral("AdressePort"));
    d->AdressePort->setToolTip(QStringLiteral("Port address"));
    connect(d->AdressePort, &QLineEdit::editingFinished, this, &MainWindow::portFieldEdited);
    d->Shape1 = new QLabel;
    d->Shape1->setObjectName(QStringLiteral("Shape1"));
    d->Shape1->setFixedSize(15, 15);
    d->Shape1->setToolTip(QStringLiteral("Machine link"));
    d->Label3 = new QLabel(QStringLiteral("<a href=\"#\">Search</a>"));
    d->Label3->setObjectName(QStringLiteral("Label3"));
    d->Label3->setToolTip(QStringLiteral("Search the ports for a Grbl board"));
    connect(d->Label3, &QLabel::linkActivated, this, [this] { Label3_Click(); });
    d->simulationLamp = new QLabel;
    d->simulationLamp->setObjectName(QStringLiteral("simulationLamp"));
    d->simulationLamp->setFixedSize(15, 15);
    d->simulationLamp->setToolTip(QStringLiteral("Yellow: simulation; green: machine connected; red: no machine"));

    auto* jobBox = new QGroupBox(QStringLiteral("Job"));
    auto* jobLayout = new QGridLayout(jobBox);
    jobLayout->addWidget(d->Punch_button, 0, 0, 1, 3);
    jobLayout->addWidget(d->Pause_button, 1, 0, 1, 3);
    jobLayout->addWidget(d->Stop_button, 2, 0, 1, 3);
    jobLayout->addWidget(d->gauge1, 3, 0, 1, 3);
    jobLayout->addWidget(new QLabel(QStringLiteral("Time left")), 4, 0);
    jobLayout->addWidget(d->Text2, 4, 1, 1, 2);
    auto* machineBox = new QGroupBox(QStringLiteral("Machine"));
    auto* machineLayout = new QGridLayout(machineBox);
    machineLayout->addWidget(new QLabel(QStringLiteral("Port")), 0, 0);
    machineLayout->addWidget(d->AdressePort, 0, 1);
    machineLayout->addWidget(d->Shape1, 0, 2);
    machineLayout->addWidget(d->Label3, 1, 1);
    machineLayout->addWidget(new QLabel(QStringLiteral("Simulation")), 2, 0);
    machineLayout->addWidget(d->simulationLamp, 2, 2);
    auto* side = new QWidget;
    auto* sideLayout = new QVBoxLayout(side);
    sideLayout->setContentsMargins(0, 0, 0, 0);
    sideLayout->addWidget(jobBox);
    sideLayout->addWidget(machineBox);
    sideLayout->addStretch(1);

    d->horizontal = new QSplitter(Qt::Horizontal);
    d->horizontal->setObjectName(QStringLiteral("logSplitter"));
    d->horizontal->addWidget(logBox);
    d->horizontal->addWidget(side);
    d->horizontal->setStretchFactor(0, 1);
    d->horizontal->setStretchFactor(1, 0);
    d->vertical = new QSplitter(Qt::Vertical);
    d->vertical->setObjectName(QStringLiteral("rollSplitter"));
    d->vertical->addWidget(d->roll);
    d->vertical->addWidget(d->horizontal);
    d->vertical->setStretchFactor(0, 3);
    d->vertical->setStretchFactor(1, 2);
    setCentralWidget(d->vertical);

    d->statusSong = new QLabel(QStringLiteral("No song"));
    d->statusScale = new QLabel;
    d->statusMachine = new QLabel;
    statusBar()->addWidget(d->statusSong, 1);
    statusBar()->addPermanentWidget(d->statusScale);
    statusBar()->addPermanentWidget(d->statusMachine);
    resize(1200, 800);
}

void MainWindow::buildMenus()
{
    QMenu* file = menuBar()->addMenu(QStringLiteral("File"));
    d->openAction = file->addAction(QString::fromLatin1(kOpenText), this, &MainWindow::Ouvre_midi);
    d->openAction->setObjectName(QStringLiteral("Ouvre_midi"));
    d->openAction->setShortcut(QKeySequence::Open);
    d->printAction = file->addAction(QStringLiteral("Print / Export..."), this, &MainWindow::printRoll_Click);
    d->printAction->setToolTip(QStringLiteral("The roll at 1:1 on paper (PDF or SVG), paged with alignment marks"));
    file->addSeparator();
    QAction* quit = file->addAction(QStringLiteral("Quit"), this, &MainWindow::quitter_Click);
    quit->setShortcut(QKeySequence::Quit);

    QMenu* folds = menuBar()->addMenu(QStringLiteral("Folding marks"));
    d->liveFoldsAction = folds->addAction(QStringLiteral("Live folding dots"), this, [this] {
        d->port->link().Marque_plis_Click();
        d->port->carryOut();
        refreshState();
    });
    d->liveFoldsAction->setObjectName(QStringLiteral("Marque_plis"));
    d->foldFileAction = folds->addAction(QStringLiteral("Folding marks file..."), this, &MainWindow::foldFileDialog);

    QMenu* tools = menuBar()->addMenu(QStringLiteral("Tools"));
    d->settingsAction = tools->addAction(QStringLiteral("Settings"), this, &MainWindow::Param_perf_Click);
    d->settingsAction->setObjectName(QStringLiteral("Param_perf"));
    d->uploadMenu = tools->addMenu(QStringLiteral("Grbl upload"));
    for (const GrblBoardEntry& entry : grblBoards()) {
        const GrblBoard board = entry.board;
        QAction* a = d->uploadMenu->addAction(qs(entry.menuText), this, [this, board] { flashBoard(board); });
        a->setObjectName(qs(entry.handler));
    }
    d->bestTranspositionAction =
        tools->addAction(QStringLiteral("Best transposition"), this, &MainWindow::bestTransposition_Click);
    d->bestTranspositionAction->setToolTip(
        QStringLiteral("The shift (within two octaves) that loses the fewest notes of the song"));
    d->verifyAction = tools->addAction(QStringLiteral("Verify"), this, [this] { verifyProgram(false); });
    d->verifyAction->setToolTip(QStringLiteral("Reads the program back and checks it against the song"));
    tools->addSeparator();
    tools->addAction(QStringLiteral("Grbl soft reset"), this, [this] {
        if (!d->port->isOpen())
            return showMessage("Machine not connected");
        d->port->link().softReset();
        d->port->carryOut();
    });

    QMenu* play = menuBar()->addMenu(QStringLiteral("Play"));
    d->playAction = play->addAction(QStringLiteral("Play (p)"), this, [this] { Play_morceau_click(false); });
    d->playAction->setObjectName(QStringLiteral("Play_morceau"));
    d->playRollAction = play->addAction(QStringLiteral("Play the roll as cut"), this, [this] { Play_morceau_click(true); });
    d->playRollAction->setToolTip(QStringLiteral("The holes of the program as the organ will read them"));
    play->addSeparator();
    d->simulateAction = play->addAction(QStringLiteral("Simulate"), this, &MainWindow::Simulate_Click);
    d->simulateAction->setCheckable(true);

    d->zoomMenu = menuBar()->addMenu(QStringLiteral("Zoom"));
    d->zoomMenu->setObjectName(QStringLiteral("zoom"));
    d->zoomMenu->addAction(QStringLiteral("Zoom in (h)"), this, [this] { d->roll->zoomIn(); });
    d->zoomMenu->addAction(QStringLiteral("Zoom out (g)"), this, [this] { d->roll->zoomOut(); });
    d->zoomMenu->addAction(QStringLiteral("Default zoom (j)"), this, [this] { d->roll->zoomDefault(); });
    d->zoomMenu->addSeparator();
    d->droppedAction = d->zoomMenu->addAction(QStringLiteral("Notes outside the scale"), this,
                                              [this](bool on) { d->roll->setShowDropped(on); });
    d->droppedAction->setCheckable(true);

    QMenu* help = menuBar()->addMenu(QStringLiteral("Help"));
    help->addAction(QStringLiteral("About"), this, &MainWindow::About_Click);
}

void MainWindow::connectPlayback()
{
    PlaybackController* playback = &d->playback;
    connect(playback, &PlaybackController::scrollChanged, this,
            [this](double mm) { d->roll->setScrollValue(static_cast<int>(std::lround(mm))); });
    connect(playback, &PlaybackController::started, this,
            [this](const QString& output) { d->port->link().logLine("Playing on " + output.toStdString()); });
    connect(playback, &PlaybackController::failed, this, [this](const QString& why) {
        d->port->link().logLine("Playback not started: " + why.toStdString());
    });
    connect(playback, &PlaybackController::finished, this, &MainWindow::refreshState);
}

void MainWindow::connectMachine()
{
    MachinePort* port = d->port.get();
    connect(port, &MachinePort::stateChanged, this, &MainWindow::refreshState);
    connect(port, &MachinePort::jobEnded, this, &MainWindow::jobEnded);
    connect(port, &MachinePort::jobRefused, this, &MainWindow::jobRefused);
    const auto noGrblHint = [this] {
        d->port->link().logLine("Is the board powered and plugged in? Type its port in the Port field or click "
                                "Search; to work without a machine, switch Play > Simulate on");
    };
    connect(port, &MachinePort::detectionFinished, this, [this, noGrblHint](bool found) {
        if (!found && !d->state->recherche_en_cours)
            noGrblHint();
    });
    connect(port, &MachinePort::scanFinished, this, [this, noGrblHint](bool found) {
        if (!found && !d->port->isOpen())
            noGrblHint();
    });
    connect(port, &MachinePort::detectionFinished, this, [this](bool found) {
        if (!found || d->state->recherche_en_cours)
            return;
        // The machine's rates and accelerations time its jobs: known from an earlier run on this
        // port, or asked now.
        const QStringList known = storedMachineSettings(d->port->portName());
        d->state->grblSettingsLines.clear();
        for (const QString& line : known)
            d->state->grblSettingsLines.push_back(line.toStdString());
        if (known.isEmpty()) {
            d->port->link().envoi_commande("$$");
            d->port->carryOut();
        }
    });
    connect(port, &MachinePort::commandFinished, this, [this](const QString& command, const QString& reply) {
        if (command == QLatin1String("$$") && reply == QLatin1String("ok") && !d->state->grblSettingsLines.empty()) {
            QStringList lines;
            for (const std::string& line : d->state->grblSettingsLines)
                lines << qs(line);
            storeMachineSettings(d->port->portName(), lines);
        }
        if (command == d->pendingCommand) {
            d->pendingCommand.clear();
            d->Text1->setPalette(QPalette());
        }
        if (command == QLatin1String("$32=1") && reply == QLatin1String("ok"))
            d->port->link().logLine("Laser mode on ($32=1): press Punch to start the job");
    });
}

// --- start-up and quit ---

void MainWindow::startUp(bool openPort)
{
    StartupHooks hooks;
    hooks.paintRoll = [this] { d->roll->setPicture(nullptr); };
    hooks.fillGlossary = [this] { remplir_glossaire(d->state->Liste_commentaires_grbl); };
    if (openPort)
        hooks.openPort = [this] { d->port->openAtStartup(); };
    d->state->reportDecimalSeparator = QLocale().decimalPoint().at(0).toLatin1();
    if (d->state->reportDecimalSeparator == 0)
        d->state->reportDecimalSeparator = '.';
    Form_Load(*d->state, *d->store, platformFolders(), hooks);
    d->roll->setZoom(d->state->facteur_zoom);
    for (const QString& line : storedMachineSettings(qs(d->state->settings.AdressePort)))
        d->state->grblSettingsLines.push_back(line.toStdString());
    d->settings->loadFromState();
    if (openPort)
        d->port->setWatching(true);
    d->AdressePort->setText(qs(d->state->settings.AdressePort));
    refreshLog();
    refreshState();
}

void MainWindow::quitter_Click()
{
    close();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (d->upload->running()) {
        // A board half flashed would not start: avrdude must finish first.
        event->ignore();
        showMessage("Waiting for uploading is finished");
        return;
    }
    if (d->port->link().jobRunning() && !d->quitting) {
        event->ignore();
        auto* box = new QMessageBox(QMessageBox::Question, QStringLiteral("Quit"),
                                    QStringLiteral("A job is running. Stop it and quit?"),
                                    QMessageBox::Yes | QMessageBox::No, this);
        box->setDefaultButton(QMessageBox::No);
        box->setAttribute(Qt::WA_DeleteOnClose);
        connect(box, &QMessageBox::finished, this, [this](int result) {
            if (result != QMessageBox::Yes)
                return;
            Stop_button_Click();
            d->quitting = true;
            close();
        });
        box->open();
        return;
    }
    saveLayout();
    ShutdownHooks hooks;
    hooks.closePort = [this] {
        d->port->setWatching(false);
        if (d->port->isOpen())
            d->port->closePort();
    };
    hooks.closeMidi = [this] { d->playback.stop(); };
    hooks.endProgram = [this] { d->settings->close(); };
    veltrin::quitter_Click(*d->state, *d->store, hooks);
    event->accept();
}

void MainWindow::restoreLayout()
{
    QSettings window(QStringLiteral("Veltrin"), QStringLiteral("Veltrin"));
    window.beginGroup(QStringLiteral("Window"));
    if (window.contains(QStringLiteral("geometry")))
        restoreGeometry(window.value(QStringLiteral("geometry")).toByteArray());
    if (window.contains(QStringLiteral("rollSplitter")))
        d->vertical->restoreState(window.value(QStringLiteral("rollSplitter")).toByteArray());
    else
        d->vertical->setSizes({480, 300});
    if (window.contains(QStringLiteral("logSplitter")))
        d->horizontal->restoreState(window.value(QStringLiteral("logSplitter")).toByteArray());
    else
        d->horizontal->setSizes({900, 260});
}

void MainWindow::saveLayout()
{
    QSettings window(QStringLiteral("Veltrin"), QStringLiteral("Veltrin"));
    window.beginGroup(QStringLiteral("Window"));
    window.setValue(QStringLiteral("geometry"), saveGeometry());
    window.setValue(QStringLiteral("rollSplitter"), d->vertical->saveState());
    window.setValue(QStringLiteral("logSplitter"), d->horizontal->saveState());
}

// --- songs ---

void MainWindow::Ouvre_midi()
{
    auto* dialog = new QFileDialog(this, QString::fromLatin1(kOpenText));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFiles);
    dialog->setNameFilters({QStringLiteral("Files (*.mid *.rep)"), QStringLiteral("Tous (*)")});
    QSettings window(QStringLiteral("Veltrin"), QStringLiteral("Veltrin"));
    const QString folder = window.value(QStringLiteral("Window/songFolder")).toString();
    if (!folder.isEmpty())
        dialog->setDirectory(folder);
    connect(dialog, &QFileDialog::filesSelected, this, [this](const QStringList& files) {
        if (files.isEmpty())
            return;
        QSettings settings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin"));
        settings.setValue(QStringLiteral("Window/songFolder"), QFileInfo(files.front()).absolutePath());
        openFiles(files);
    });
    dialog->open();
}

void MainWindow::openFiles(const QStringList& paths)
{
    if (paths.isEmpty())
        return;
    if (paths.size() == 1)
        return openFilesWithGap(paths, 0);
    auto* ask = new QInputDialog(this);
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setObjectName(QStringLiteral("rollGapDialog"));
    ask->setWindowTitle(QStringLiteral("Distance between rolls"));
    ask->setLabelText(QStringLiteral("Define the distance between successive rolls (in mm)"));
    ask->setInputMode(QInputDialog::TextInput);
    connect(ask, &QInputDialog::textValueSelected, this, [this, paths](const QString& answer) {
        openFilesWithGap(paths, rollGapFromAnswer(answer.toStdString()));
    });
    ask->open();
}

void MainWindow::openFilesWithGap(const QStringList& paths, int rollGapMm)
{
    if (busy())
        return;
    std::vector<std::string> files;
    for (const QString& path : paths)
        files.push_back(QFileInfo(path).absoluteFilePath().toStdString());
    d->importing = true;
    d->Punch_button->setText(QStringLiteral("Punch"));
    d->statusSong->setText(paths.front());
    QApplication::setOverrideCursor(Qt::WaitCursor);
    refreshState();
    ImportOptions options;
    options.store = d->store;
    const auto imported = veltrin::Ouvre_midi(*d->state, files, rollGapMm, options);
    QApplication::restoreOverrideCursor();
    d->importing = false;
    if (!imported && imported.error() != ImportError::NoFile) {
        const std::string why = imported.detail();
        d->port->link().logLine("Song not opened: " + why);
        d->state->punchEnabled = false;
        showMessage("The song could not be turned into a program:\n" + why);
    }
    refreshRoll();
    d->roll->setScrollValue(0);
    d->roll->setFocus();
    d->settings->showState();
    refreshState();
}

bool MainWindow::hasNextRoll()
{
    return d->state->currentFileIndex + 1 < static_cast<int>(d->state->Liste_fichiers.size());
}

int MainWindow::rollGapMm()
{
    return d->state->rollGapMm;
}

std::optional<JobProgram> MainWindow::openNextRoll()
{
    ++d->state->currentFileIndex;
    ImportOptions options;
    options.store = d->store;
    const auto opened = openCurrentFile(*d->state, options);
    // Out of the link's call: the roll is redrawn once the next job has started.
    QTimer::singleShot(0, this, [this] {
        refreshRoll();
        refreshState();
    });
    if (!opened) {
        d->port->link().logLine("Next roll not opened: " + opened.detail());
        return std::nullopt;
    }
    return readProgram(opened->programPath);
}

std::optional<JobProgram> MainWindow::readProgram(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        showMessage("The program " + path + " cannot be read");
        return std::nullopt;
    }
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(at, end - at);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(std::move(line));
        at = end + 1;
    }
    return programForJob(*d->state, std::move(lines), QFileInfo(QString::fromStdString(path)).fileName().toStdString());
}

// --- settings and the plan ---

void MainWindow::Param_perf_Click()
{
    if (busy())
        return;
    if (!d->settings->isVisible())
        d->settings->showState();
    d->settings->show();
    d->settings->raise();
    d->settings->activateWindow();
}

void MainWindow::settingEdited(const QString& field)
{
    if (!changesProgram(field))
        return;
    if (field == QLatin1String("Fourchette"))
        d->regenerateBands = true;
    else
        d->regenerateAll = true;
    // No Punch with a program that the settings on screen no longer describe.
    d->regenerateTimer.start();
    refreshState();
}

void MainWindow::regenerate()
{
    const bool all = d->regenerateAll;
    const bool bands = d->regenerateBands;
    d->regenerateAll = d->regenerateBands = false;
    if (busy() || d->state->chemin_morceau.empty())
        return refreshState();
    QApplication::setOverrideCursor(Qt::WaitCursor);
    std::optional<Result<std::string, PlanError>> result;
    if (all)
        result = planSettingsChanged(*d->state);
    else if (bands)
        result = fourchetteChanged(*d->state);
    QApplication::restoreOverrideCursor();
    if (result)
        afterGeneration(bool(*result), *result ? std::string() : result->detail());
    refreshRoll();
    refreshState();
}

void MainWindow::afterGeneration(bool ok, const std::string& detail)
{
    if (ok)
        return;
    // The program on disk was made with other values: it must not be punched as if it
    // matched what the settings now say.
    d->state->punchEnabled = false;
    d->port->link().logLine("Program not written: " + detail);
}

// --- the roll ---

void MainWindow::refreshRoll()
{
    d->lastProgress = -1;
    // The machine time of the program just written follows the report once the roll is drawn.
    if (d->state->punchEnabled && !d->state->chemin_morceau.empty() && !d->machineTimeDue) {
        d->machineTimeDue = true;
        QTimer::singleShot(0, this, &MainWindow::logMachineTime);
    }
    d->picture = std::make_shared<const RollPicture>(rollPictureOf(*d->state));
    d->roll->setPicture(d->picture);
    refreshMarks();
}

void MainWindow::logMachineTime()
{
    d->machineTimeDue = false;
    std::ifstream file(programPath(*d->state), std::ios::binary);
    if (!file)
        return;
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    d->port->link().logLine(machineTimeLine(estimateProgramText(text, machineSettings(*d->state)).seconds));
}

void MainWindow::refreshMarks()
{
    const double mmPerMs = (d->picture ? d->picture->mmPerSecond : num(d->state->settings.Vitcarton)) / 1000.0;
    std::optional<double> start;
    std::optional<double> end;
    if (d->state->debut_marque && *d->state->debut_marque > 0)
        start = *d->state->debut_marque * mmPerMs;
    if (d->state->fin_marque != 500000.0)
        end = d->state->fin_marque * mmPerMs;
    d->roll->setMarks(start, end);
}

void MainWindow::stripMouseDown(Qt::MouseButton button, Qt::KeyboardModifiers modifiers, int strip, double x)
{
    MouseButton which = MouseButton::Middle;
    if (button == Qt::LeftButton)
        which = MouseButton::Left;
    else if (button == Qt::RightButton)
        which = MouseButton::Right;
    const bool modifier =
        (modifiers & (Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier)) != 0;
    const RollLayout layout = d->roll->layout();
    const double mmPerSecond = d->picture ? d->picture->mmPerSecond : num(d->state->settings.Vitcarton);
    const StripClickOutcome outcome =
        stripClick(busy(), which, modifier, layout.stripLengths(), strip, x, layout.zoom, mmPerSecond);
    switch (outcome.action) {
    case StripClickAction::Nothing:
        return;
    case StripClickAction::ZoomMenu:
        d->zoomMenu->popup(QCursor::pos());
        return;
    case StripClickAction::SetStartMark:
    case StripClickAction::SetEndMark: {
        const auto written = outcome.action == StripClickAction::SetStartMark
                                 ? setStartMark(*d->state, outcome.timeMs)
                                 : setEndMark(*d->state, outcome.timeMs);
        if (!written)
            d->port->link().logLine(written.detail());
        refreshRoll();
        refreshState();
        return;
    }
    }
}

// --- keys and the console ---

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::MouseButtonPress && watched == d->Text1) {
        // A click in the console while the port is open clears it for a new command.
        if (static_cast<QMouseEvent*>(event)->button() == Qt::LeftButton && d->port->isOpen() &&
            d->pendingCommand.isEmpty())
            d->Text1->clear();
        return false;
    }
    if (event->type() != QEvent::KeyPress)
        return false;
    // The window sees keys before its controls: once, at the widget that has the focus.
    auto* widget = qobject_cast<QWidget*>(watched);
    if (!widget || widget->window() != this || widget != QApplication::focusWidget())
        return false;
    return Form_KeyDown(static_cast<QKeyEvent*>(event));
}

bool MainWindow::Form_KeyDown(QKeyEvent* event)
{
    const bool alt = event->modifiers().testFlag(Qt::AltModifier);
    QWidget* focus = QApplication::focusWidget();
    const bool inConsole = focus == d->Text1;
    // Text fields keep their keys (the port field; the console, whose own keys are below);
    // any other control hands the focus to the roll first.
    const bool inTextField = qobject_cast<QLineEdit*>(focus) != nullptr;
    if (!inTextField && focus != d->roll)
        d->roll->setFocus();
    GrblLink& link = d->port->link();
    const auto machineKey = [this](const std::function<void()>& send) {
        if (d->port->isOpen()) {
            send();
            d->port->carryOut();
        }
        return true;
    };
    if (alt) {
        switch (event->key()) {
        case Qt::Key_Left:
            return machineKey([&] { link.jog('Y', -50); });
        case Qt::Key_Up:
            return machineKey([&] { link.jog('X', 50); });
        case Qt::Key_Right:
            return machineKey([&] { link.jog('Y', 50); });
        case Qt::Key_Down:
            return machineKey([&] { link.jog('X', -50); });
        case Qt::Key_Z:
            return machineKey([&] { link.homeX(); });
        case Qt::Key_P:
            return machineKey([&] { link.toolTest(); });
        case Qt::Key_L:
            return machineKey([&] { link.laserPointer(); });
        default:
            return false;
        }
    }
    if (inConsole) {
        if (event->key() == Qt::Key_Up || event->key() == Qt::Key_Down) {
            consoleHistory(event->key() == Qt::Key_Up ? -1 : 1);
            return true;
        }
        return false;
    }
    if (inTextField || event->modifiers() & (Qt::ControlModifier | Qt::MetaModifier))
        return false;
    switch (event->key()) {
    case Qt::Key_Right:
        d->roll->scrollForward();
        return true;
    case Qt::Key_Left:
        d->roll->scrollBack();
        return true;
    case Qt::Key_G:
        d->roll->zoomOut();
        return true;
    case Qt::Key_H:
        d->roll->zoomIn();
        return true;
    case Qt::Key_J:
        d->roll->zoomDefault();
        return true;
    case Qt::Key_P:
        Play_morceau_click(false);
        return true;
    default:
        return false;
    }
}

void MainWindow::consoleHistory(int step)
{
    if (d->history.isEmpty())
        return;
    d->historyIndex = std::clamp(d->historyIndex + step, 0, static_cast<int>(d->history.size()));
    d->Text1->setText(d->historyIndex < d->history.size() ? d->history.at(d->historyIndex) : QString());
}

void MainWindow::Text1_KeyPress()
{
    const QString text = d->Text1->text();
    if (!d->port->isOpen()) {
        showMessage("Machine not connected");
        return;
    }
    if (text.isEmpty())
        return;
    if (d->history.isEmpty() || d->history.back() != text)
        d->history.push_back(text);
    d->historyIndex = static_cast<int>(d->history.size());
    GrblLink& link = d->port->link();
    if (text.size() == 1 && (text == QLatin1String("!") || text == QLatin1String("~") || text == QLatin1String("?"))) {
        link.realtimeCommand(text.at(0).toLatin1());
    } else if (link.consoleCommand(text.toStdString())) {
        // Grey while Grbl has not answered.
        d->pendingCommand = text;
        QPalette grey = d->Text1->palette();
        grey.setColor(QPalette::Text, palette().color(QPalette::Disabled, QPalette::Text));
        d->Text1->setPalette(grey);
    }
    d->port->carryOut();
}

// --- the job ---

void MainWindow::Punch_button_Click()
{
    if (d->Punch_button->text() == QLatin1String("Fold")) {
        d->port->link().marquage_plis();
        d->port->carryOut();
        refreshState();
        return;
    }
    if (busy() || d->playback.running() || !d->state->punchEnabled || d->regenerateTimer.isActive())
        return;
    if (!d->state->connecte && !d->state->mode_simulation) {
        showMessage("Machine not connected");
        return;
    }
    // The program is read back before the card is cut: a fault asks first (No by default).
    if (!verifyProgram(true))
        return;
    startJob();
}

void MainWindow::startJob()
{
    if (busy() || d->playback.running())
        return;
    auto program = readProgram(programPath(*d->state));
    if (!program)
        return;
    d->holdsSeen = 0;
    d->roll->setScrollValue(0);
    d->port->punch(std::move(*program));
    refreshState();
}

bool MainWindow::verifyProgram(bool beforePunch)
{
    const auto check = verifyLastProgram(*d->state);
    GrblLink& link = d->port->link();
    if (!check) {
        link.logLine("Verify: " + check.detail());
        if (!beforePunch)
            showMessage("The program cannot be verified: " + check.detail());
        // A program that cannot be read back cannot be punched either: the job says why.
        return true;
    }
    for (const std::string& line : check->report)
        link.logLine(line);
    if (check->ok() || !beforePunch)
        return true;
    std::string question = "The program would not cut the song as planned:\n";
    for (std::size_t i = 0; i < check->report.size() && i < 6; ++i)
        question += check->report[i] + "\n";
    question += "\nPunch anyway?";
    askYesNo(question, false, [this](bool yes) {
        if (yes)
            startJob();
    });
    return false;
}

void MainWindow::printRoll_Click()
{
    if (!d->picture || d->picture->holes.empty())
        return;
    auto* dialog = new QFileDialog(this, QStringLiteral("Print / Export..."));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setNameFilters({QStringLiteral("PDF (*.pdf)"), QStringLiteral("SVG (*.svg)")});
    dialog->setDefaultSuffix(QStringLiteral("pdf"));
    dialog->selectFile(qs(songTitle(d->state->chemin_morceau)) + QStringLiteral(".pdf"));
    connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& path) { printRollTo(path); });
    dialog->open();
}

void MainWindow::printRollTo(const QString& path)
{
    PrintOptions options;
    options.paper = QLocale::system().measurementSystem() == QLocale::ImperialUSSystem ? Paper::Letter : Paper::A4;
    options.footer = printFooterOf(*d->state);
    QApplication::setOverrideCursor(Qt::WaitCursor);
    const auto printed = printRoll(rollPictureOf(*d->state), options, path);
    QApplication::restoreOverrideCursor();
    if (!printed) {
        showMessage("Not printed: " + printed.detail());
        return;
    }
    d->port->link().logLine(path.toStdString() + ": " + std::to_string(printed.value()) + " sheets at 1:1");
}

void MainWindow::bestTransposition_Click()
{
    if (busy() || d->playback.running())
        return;
    QApplication::setOverrideCursor(Qt::WaitCursor);
    const auto result = applyBestTransposition(*d->state, *d->store);
    QApplication::restoreOverrideCursor();
    if (!result)
        return;
    afterGeneration(bool(*result), *result ? std::string() : result->detail());
    d->settings->showState();
    refreshRoll();
    refreshState();
}

void MainWindow::Pause_button_Click()
{
    d->port->link().Pause_button_Click();
    d->port->carryOut();
    refreshState();
}

void MainWindow::Stop_button_Click()
{
    // The same button ends a playback, or else cancels the job.
    if (d->playback.running()) {
        d->playback.stop();
    } else {
        d->port->link().Stop_button_Click();
        d->port->carryOut();
    }
    refreshState();
}

void MainWindow::Play_morceau_click(bool roll)
{
    if (d->playback.running() || d->importing)
        return;
    if (d->state->chemin_morceau.empty()) {
        d->port->link().logLine("Open a song first");
        return;
    }
    const PlaybackPlan plan = playbackPlan(*d->state, roll ? PlaybackSource::Roll : PlaybackSource::Song);
    if (roll && plan.schedule.linesPlayed == 0) {
        d->port->link().logLine("No hole of the program to play between the marks");
        return;
    }
    d->roll->zoomDefault();
    d->playback.play(plan.schedule, plan.mmPerSecond);
    refreshState();
}

void MainWindow::Simulate_Click()
{
    toggleSimulationMode(*d->state);
    refreshState();
}

void MainWindow::jobEnded(JobOutcome outcome)
{
    if (outcome == JobOutcome::EndOfPunch && !d->state->mode_simulation) {
        d->store->write("duree_metre_laser", d->state->settings.duree_metre_laser);
        d->store->write("duree_trou_poincon", d->state->settings.duree_trou_poincon);
    }
    if (d->holdBox)
        d->holdBox->close();
    d->Text2->setText(QStringLiteral("00:00:00"));
    if ((outcome == JobOutcome::Cancelled || outcome == JobOutcome::PortLost) &&
        d->port->link().job().resumeWritten()) {
        d->port->link().logLine("Resume file: " + d->port->link().job().songPath() +
                                ".rep \u2014 open it to cut what is left");
    }
    refreshState();
}

void MainWindow::jobRefused(const QString& why, bool laserModeOff)
{
    if (!laserModeOff) {
        showMessage(why.toStdString());
        return;
    }
    auto* box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Laser mode"),
                                why + QStringLiteral("\n\nTurn Grbl's laser mode on now ($32=1)?"),
                                QMessageBox::Yes | QMessageBox::No, this);
    box->setObjectName(QStringLiteral("laserModeBox"));
    box->setDefaultButton(QMessageBox::Yes);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this](int result) {
        if (result != QMessageBox::Yes || !d->port->isOpen())
            return;
        d->port->link().envoi_commande("$32=1");
        d->port->carryOut();
    });
    box->open();
}

void MainWindow::jobHeld()
{
    // A job, or a fold marking, waits for the operator: Continue or Stop.
    GrblLink& link = d->port->link();
    const bool folds = link.folds().held();
    if (folds)
        d->foldHoldsSeen = link.folds().holdCount();
    else
        d->holdsSeen = link.job().holdCount();
    if (d->holdBox)
        d->holdBox->close();
    const bool canContinue = folds || link.job().holdReason() != HoldReason::CriticalAlarm;
    const QString what = folds ? QStringLiteral("Fold marking held") : QStringLiteral("Punch held");
    const std::string& message = folds ? link.folds().holdMessage() : link.job().holdMessage();
    auto* box = new QMessageBox(QMessageBox::Warning, what, qs(message), QMessageBox::NoButton, this);
    box->setObjectName(QStringLiteral("holdBox"));
    box->setInformativeText(folds ? QStringLiteral("Continue the marking, or stop it?")
                            : canContinue
                                ? QStringLiteral("Continue the job, or stop it (the resume file keeps where it stopped)?")
                                : QStringLiteral("Grbl answers nothing until it is reset: the job can only be stopped "
                                                 "(the resume file keeps where it stopped)."));
    QPushButton* go = canContinue ? box->addButton(QStringLiteral("Continue"), QMessageBox::AcceptRole) : nullptr;
    QPushButton* stop = box->addButton(QStringLiteral("Stop"), QMessageBox::RejectRole);
    box->setDefaultButton(stop);
    box->setAttribute(Qt::WA_DeleteOnClose);
    d->holdBox = box;
    connect(box, &QMessageBox::buttonClicked, this, [this, go](QAbstractButton* clicked) {
        if (!d->port->link().job().held() && !d->port->link().folds().held())
            return;
        if (go && clicked == go)
            Pause_button_Click();
        else
            Stop_button_Click();
    });
    connect(box, &QObject::destroyed, this, [this, box] {
        if (d->holdBox == box)
            d->holdBox = nullptr;
    });
    box->open();
}

// --- the machine link's controls ---

void MainWindow::Label3_Click()
{
    MachinePort& port = *d->port;
    if (port.link().jobRunning())
        return;
    // A port where no Grbl answered is let go, so the search may find the board elsewhere.
    if (port.isOpen() && !d->state->ouvre_midi_actif)
        port.closePort();
    if (port.isOpen()) {
        port.link().logLine("Grbl answers on " + port.portName().toStdString());
        return;
    }
    QApplication::setOverrideCursor(Qt::WaitCursor);
    connect(&port, &MachinePort::scanFinished, this, [] { QApplication::restoreOverrideCursor(); },
            Qt::SingleShotConnection);
    port.scanPorts();
    if (!d->state->recherche_en_cours)
        QApplication::restoreOverrideCursor();
    refreshState();
}

void MainWindow::portFieldEdited()
{
    const QString field = d->AdressePort->text().trimmed();
    if (field.toStdString() == d->state->settings.AdressePort && d->port->isOpen())
        return;
    if (d->port->link().jobRunning()) {
        d->AdressePort->setText(qs(d->state->settings.AdressePort));
        return;
    }
    changeSetting(*d->state, *d->store, "AdressePort", field.toStdString());
    d->port->portFieldChanged(field);
    refreshState();
}

// --- showing the state ---

void MainWindow::refreshLog()
{
    d->logDue = false;
    const std::string& text = d->state->user_msg_list.text();
    // While it only grows, the new text is appended; once trimmed (a job keeps it short) it is
    // shown anew.
    const bool grows = text.size() >= d->shownLog.size() && text.compare(0, d->shownLog.size(), d->shownLog) == 0;
    const std::string_view added = grows ? std::string_view(text).substr(d->shownLog.size()) : std::string_view(text);
    std::string shown;
    shown.reserve(added.size());
    for (const char c : added) {
        if (c != '\r')
            shown.push_back(c);
    }
    if (!grows)
        d->user_msg_list->setPlainText(QString());
    QTextCursor end = d->user_msg_list->textCursor();
    end.movePosition(QTextCursor::End);
    end.insertText(QString::fromStdString(shown));
    d->user_msg_list->setTextCursor(end);
    d->user_msg_list->ensureCursorVisible();
    d->shownLog = text;
}

void MainWindow::refreshLamps()
{
    AppState& s = *d->state;
    setLamp(d->Shape1, d->port->isOpen() ? QColor(0, 255, 0) : QColor(255, 0, 0));
    setLamp(d->simulationLamp, lampColour(statusLamp(s.mode_simulation, s.connecte)));
    d->simulationLamp->setToolTip(s.mode_simulation ? QStringLiteral("Simulation: jobs send nothing")
                                  : s.connecte      ? QStringLiteral("Machine connected")
                                                    : QStringLiteral("No machine connected"));
}

void MainWindow::refreshState()
{
    AppState& s = *d->state;
    GrblLink& link = d->port->link();
    const JobStreamer& job = link.job();
    const bool running = link.jobRunning();
    const bool pending = d->regenerateTimer.isActive();

    const bool playing = d->playback.running();
    const bool flashing = d->upload->running();
    d->Punch_button->setText(qs(link.punchCaption()));
    d->Punch_button->setEnabled(!running && !playing && !flashing && !d->importing &&
                                (link.foldArmed() || (s.punchEnabled && !pending)));
    d->Pause_button->setEnabled(running && !link.folds().running());
    d->Stop_button->setEnabled(running || playing);
    d->playAction->setEnabled(!playing && !s.chemin_morceau.empty());
    d->playRollAction->setEnabled(!playing && !s.chemin_morceau.empty());
    d->Pause_button->setText(job.en_pause() ? QStringLiteral("Resume") : QStringLiteral("Pause"));
    d->settingsAction->setEnabled(!running && !flashing);
    d->bestTranspositionAction->setEnabled(!running && !playing && !s.chemin_morceau.empty());
    d->verifyAction->setEnabled(!s.chemin_morceau.empty() && s.punchEnabled);
    d->printAction->setEnabled(!s.chemin_morceau.empty() && d->picture && !d->picture->holes.empty());
    d->openAction->setEnabled(!running && !flashing && s.ouvre_midi_actif);
    d->liveFoldsAction->setEnabled(!running && !flashing && s.settings.isLaser());
    d->foldFileAction->setEnabled(!running && s.settings.isLaser() && !s.chemin_morceau.empty());
    d->uploadMenu->setEnabled(!running && !flashing);
    d->Text1->setEnabled(!flashing);
    d->AdressePort->setEnabled(!flashing);
    d->Label3->setEnabled(!flashing);
    d->simulateAction->setEnabled(!running);
    d->simulateAction->setChecked(s.mode_simulation);
    if (running && d->settings->isVisible())
        d->settings->hide();

    if (job.running()) {
        d->gauge1->setRange(0, std::max(1, static_cast<int>(job.lineCount())));
        d->gauge1->setValue(static_cast<int>(job.progress()));
        d->Text2->setText(qs(job.temps_restant()));
        d->lastProgress = static_cast<int>(job.progress());
    }
    d->roll->setProgress(d->lastProgress);
    const FoldMarker& folds = link.folds();
    if ((job.held() && job.holdCount() != d->holdsSeen) || (folds.held() && folds.holdCount() != d->foldHoldsSeen))
        jobHeld();
    else if (!job.held() && !folds.held() && d->holdBox)
        d->holdBox->close();

    const auto head = d->port->isOpen() ? link.workPositionXY() : std::nullopt;
    if (head) {
        d->roll->setHead(head->first, head->second);
        if (job.running())
            d->roll->ensureVisible(head->second);
    } else {
        d->roll->setHead(std::nullopt, std::nullopt);
    }

    if (!d->AdressePort->hasFocus() && d->AdressePort->text().toStdString() != s.settings.AdressePort)
        d->AdressePort->setText(qs(s.settings.AdressePort));
    refreshLamps();
    d->statusSong->setText(s.chemin_morceau.empty() ? QStringLiteral("No song") : qs(s.chemin_morceau));
    d->statusScale->setText(QStringLiteral("Scale: ") + qs(s.settings.Standard));
    QString machine = s.settings.isLaser() ? QStringLiteral("Laser") : QStringLiteral("Punch");
    if (s.mode_simulation)
        machine += QStringLiteral(" (simulation)");
    else if (d->port->isOpen())
        machine += QStringLiteral(" on ") + d->port->portName();
    if (job.running() || link.status().known)
        machine += QStringLiteral(" \u2014 ") + qs(link.status().state.empty() ? std::string("...") : link.status().state);
    d->statusMachine->setText(machine);
}

// --- messages ---

void MainWindow::askYesNo(std::string_view question, bool defaultYes, std::function<void(bool)> answer)
{
    auto* box = new QMessageBox(QMessageBox::Question, QStringLiteral("Veltrin"), qs(question),
                                QMessageBox::Yes | QMessageBox::No, this);
    box->setObjectName(QStringLiteral("questionBox"));
    box->setDefaultButton(defaultYes ? QMessageBox::Yes : QMessageBox::No);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [answer = std::move(answer)](int result) {
        answer(result == QMessageBox::Yes);
    });
    // Never from inside the link's own call: the box opens once the event loop turns.
    QTimer::singleShot(0, box, [box] { box->open(); });
}

void MainWindow::showMessage(std::string_view text)
{
    auto* box = new QMessageBox(QMessageBox::Information, QStringLiteral("Veltrin"), qs(text), QMessageBox::Ok, this);
    box->setObjectName(QStringLiteral("messageBox"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    QTimer::singleShot(0, box, [box] { box->open(); });
}

void MainWindow::startBackwardFolds()
{
    // Out of the link's call that asked the question.
    QTimer::singleShot(0, this, [this] {
        d->port->link().marquage_plis_arriere(d->state->y_max);
        d->port->carryOut();
        refreshState();
    });
}

void MainWindow::foldFileDialog()
{
    AppState& s = *d->state;
    if (busy() || s.chemin_morceau.empty())
        return;
    auto* ask = new QInputDialog(this);
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setObjectName(QStringLiteral("foldCountDialog"));
    ask->setWindowTitle(QStringLiteral("Folding marks"));
    ask->setLabelText(QStringLiteral("Number of folds to mark"));
    ask->setInputMode(QInputDialog::IntInput);
    ask->setIntRange(1, 100000);
    ask->setIntValue(std::max(1, foldsForRoll(std::max(s.y_max, s.longueur_rouleau), s.scale.longueur_pli)));
    connect(ask, &QInputDialog::intValueSelected, this, [this](int count) { writeFoldFile(count); });
    ask->open();
}

void MainWindow::writeFoldFile(int count)
{
    AppState& s = *d->state;
    const std::string title = songTitle(s.chemin_morceau);
    const auto written = writeFoldProgram(s.settings, s.scale, commentSafe(title), count,
                                          foldProgramPath(s.dossier_documents, title));
    if (!written) {
        showMessage(written.detail());
        return;
    }
    d->port->link().logLine("Folding marks program written: " + written.value());
    const std::string path = written.value();
    askYesNo("Mark the folds now with this program?", false, [this, path](bool yes) {
        if (!yes || busy() || d->playback.running())
            return;
        if (!d->state->connecte && !d->state->mode_simulation)
            return showMessage("Machine not connected");
        auto program = readProgram(path);
        if (!program)
            return;
        // Not the song's job: its resume file is left alone.
        program->songPath.clear();
        d->port->punch(std::move(*program));
        refreshState();
    });
}

void MainWindow::flashBoard(GrblBoard board)
{
    if (busy() || d->upload->running())
        return;
    if (!d->upload->findImage().isEmpty())
        return d->upload->upload(board);
    // No image beside the program: the operator chooses one.
    auto* dialog = new QFileDialog(this, QStringLiteral("Grbl image (Intel hex)"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFile);
    dialog->setNameFilters({QStringLiteral("Intel hex (*.hex)"), QStringLiteral("Tous (*)")});
    connect(dialog, &QFileDialog::fileSelected, this, [this, board](const QString& image) {
        if (!image.isEmpty())
            d->upload->upload(board, image);
    });
    dialog->open();
}

void MainWindow::About_Click()
{
    auto* about = new QDialog(this);
    about->setObjectName(QStringLiteral("aboutBox"));
    about->setWindowTitle(QStringLiteral("About"));
    about->setAttribute(Qt::WA_DeleteOnClose);
    auto* layout = new QVBoxLayout(about);
    auto* text = new QLabel(
        QStringLiteral("<h3>Veltrin %1</h3>"
                       "<p>MIDI songs turned into cardboard rolls and books for barrel organs,<br>"
                       "cut by a Grbl laser or punch.</p>"
                       "<p>Free software under the GNU General Public License, version 3 or later.<br>"
                       "It comes with no warranty.</p>"
                       "<p><a href=\"%2\">The project's page</a></p>")
            .arg(QStringLiteral(VELTRIN_VERSION), projectPage().toString()));
    text->setObjectName(QStringLiteral("aboutText"));
    text->setTextFormat(Qt::RichText);
    text->setTextInteractionFlags(Qt::TextBrowserInteraction);
    connect(text, &QLabel::linkActivated, about, [](const QString& link) { QDesktopServices::openUrl(QUrl(link)); });
    layout->addWidget(text);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, about, &QDialog::close);
    layout->addWidget(buttons);
    about->open();
}

}  // namespace veltrin
