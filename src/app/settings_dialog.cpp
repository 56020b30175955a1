#include "app/settings_dialog.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScopedValueRollback>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>

#include "app/app_state.h"
#include "app/settings_edit.h"
#include "app/settings_store.h"
#include "scales/organ_scale.h"
#include "scales/scale_file.h"
#include "ui_settings_dialog.h"

namespace veltrin {

namespace {

// A line edit whose text goes as it stands into the Settings field of the same name.
struct PlainField {
    const char* name;
    QLineEdit* Ui::SettingsDialog::*edit;
};

constexpr PlainField kPlainFields[] = {
    {"Vitcarton", &Ui::SettingsDialog::Vitcarton},
    {"Ldecoupe", &Ui::SettingsDialog::Ldecoupe},
    {"BassesAF", &Ui::SettingsDialog::BassesAF},
    {"Dist_notes", &Ui::SettingsDialog::Dist_notes},
    {"Talon", &Ui::SettingsDialog::Talon},
    {"Lgponts", &Ui::SettingsDialog::Lgponts},
    {"Dist_ponts", &Ui::SettingsDialog::Dist_ponts},
    {"L_poincon", &Ui::SettingsDialog::L_poincon},
    {"Fourchette", &Ui::SettingsDialog::Fourchette},
    {"MinHoleLength", &Ui::SettingsDialog::MinHoleLength},
    {"Transpose", &Ui::SettingsDialog::Transpose},
    {"Channels", &Ui::SettingsDialog::Channels},
    {"longueur_point", &Ui::SettingsDialog::longueur_point},
};

QString qText(const std::string& text)
{
    return QString::fromStdString(text);
}

std::string stdText(const QString& text)
{
    return text.toStdString();
}

bool isUnlockKey(const QKeyEvent& event)
{
    return event.key() == Qt::Key_M && event.modifiers().testFlag(Qt::AltModifier);
}

}  // namespace

struct SettingsDialog::Private {
    SettingsDialog& q;
    AppState& state;
    SettingsStore& store;
    Ui::SettingsDialog ui;
    // Set while the dialog's own code fills or relabels its fields: those changes are not
    // the operator's edits and are neither mirrored nor announced.
    bool loading = false;
    bool unlocked = false;

    Private(SettingsDialog& dialog, AppState& appState, SettingsStore& settingsStore)
        : q(dialog), state(appState), store(settingsStore)
    {
    }

    void edited(std::string_view field)
    {
        emit q.settingEdited(QString::fromUtf8(field.data(), static_cast<qsizetype>(field.size())));
    }

    // --- the operator's edits ---

    void plainField_Change(const char* field, const QString& text)
    {
        if (loading)
            return;
        changeSetting(state, store, field, stdText(text));
        edited(field);
    }

    void Laser_power_Change(const QString& text)
    {
        if (loading)
            return;
        changeSetting(state, store, "Laser_power", stdText(text));
        // The ceiling shows in the field at once; the caret stays where the operator typed.
        const QString shown = qText(state.settings.Laser_power);
        if (ui.Laser_power->text() != shown) {
            const QScopedValueRollback<bool> scope(loading, true);
            const int caret = ui.Laser_power->cursorPosition();
            ui.Laser_power->setText(shown);
            ui.Laser_power->setCursorPosition(std::min(caret, static_cast<int>(shown.size())));
        }
        edited("Laser_power");
    }

    void VitesseF_Change(const QString& text)
    {
        if (loading)
            return;
        veltrin::VitesseF_Change(state, store, stdText(text));
        edited(state.settings.isLaser() ? "VitesseF" : "VitesseF_poin");
    }

    void OrigineX_Change(const QString& text)
    {
        if (loading)
            return;
        veltrin::OrigineX_Change(state, store, stdText(text));
        edited(state.settings.isLaser() ? "OrigineX" : "OrigineX_poin");
    }

    void Type_machine_Change(int index)
    {
        if (loading || index < 0)
            return;
        changeSetting(state, store, "Type_machine", stdText(ui.Type_machine->itemText(index)));
        {
            const QScopedValueRollback<bool> scope(loading, true);
            showMachinePair();
            layOutForMachine();
        }
        edited("Type_machine");
    }

    void Laser_mode_Click(int index)
    {
        if (loading || index < 0)
            return;
        changeSetting(state, store, "Laser_mode", stdText(ui.Laser_mode->itemText(index)));
        edited("Laser_mode");
    }

    void checkBox_Click(const char* field, bool checked)
    {
        if (loading)
            return;
        changeSetting(state, store, field, checked ? "1" : "0");
        layOutForCleanup();
        edited(field);
    }

    // The operator chose a scale: it is installed with its values, which the scale's
    // fields then show.
    void Standard_Click(int index)
    {
        if (loading || index < 0)
            return;
        veltrin::Standard_Click(state, store, stdText(ui.Standard->itemText(index)));
        {
            const QScopedValueRollback<bool> scope(loading, true);
            showPlainFields();
            layOutForScale();
        }
        edited("Standard");
    }

    // --- what the fields show ---

    void showPlainFields()
    {
        for (const PlainField& field : kPlainFields)
            (ui.*field.edit)->setText(qText(*settingField(state.settings, field.name)));
    }

    // The speed and origin fields show the pair of the active machine.
    void showMachinePair()
    {
        ui.VitesseF->setText(qText(dialogVitesseF(state.settings)));
        ui.OrigineX->setText(qText(dialogOrigineX(state.settings)));
    }

    // The list holds the built-in scales and the scale files. A scale whose file has gone
    // stays installed, so its name is added to be shown.
    void fillStandardList()
    {
        ui.Standard->clear();
        for (const std::string& name : list_std_perso(state.dossier_documents))
            ui.Standard->addItem(qText(name));
        const QString active = qText(state.settings.Standard);
        int index = ui.Standard->findText(active, Qt::MatchExactly | Qt::MatchCaseSensitive);
        if (index < 0) {
            ui.Standard->addItem(active);
            index = ui.Standard->count() - 1;
        }
        ui.Standard->setCurrentIndex(index);
    }

    void setUnlocked(bool on)
    {
        unlocked = on;
        for (QLineEdit* edit : {ui.Vitcarton, ui.Talon, ui.Dist_notes})
            edit->setEnabled(on);
    }

    // --- layout: rows are shown and hidden; the layouts place them and size the dialog ---

    static void setVisible(std::initializer_list<QWidget*> widgets, bool visible)
    {
        for (QWidget* widget : widgets)
            widget->setVisible(visible);
    }

    void layOutForMachine()
    {
        const bool laser = state.settings.isLaser();
        setVisible({ui.Laser_power_label, ui.Laser_power, ui.Laser_power_unit, ui.Laser_mode_label,
                    ui.Laser_mode, ui.VitesseF_laser_label, ui.Dist_ponts_label, ui.Dist_ponts,
                    ui.Dist_ponts_unit, ui.longueur_point_label, ui.longueur_point, ui.longueur_point_unit},
                   laser);
        setVisible({ui.L_poincon_label, ui.L_poincon, ui.L_poincon_unit, ui.VitesseF_punch_label},
                   !laser);
        ui.Ldecoupe_label->setText(laser ? QStringLiteral("Laser cuttings width")
                                         : QStringLiteral("Punch size in X direction"));
        alignColumns();
    }

    void layOutForScale()
    {
        setVisible({ui.BassesAF_label, ui.BassesAF, ui.BassesAF_unit},
                   state.settings.Standard == kAlderFennName);
    }

    // The shortest hole only matters while the cleanup runs (the plan reads any number
    // but 0 as "on").
    void layOutForCleanup()
    {
        ui.MinHoleLength->setEnabled(num(state.settings.RollCleanup) != 0.0);
    }

    // The three frames share one label column and one unit column, so their fields line up.
    void alignColumns()
    {
        int labelWidth = 0;
        int unitWidth = 0;
        for (const QLabel* label : q.findChildren<QLabel*>()) {
            int& width = label->objectName().endsWith(QLatin1String("_unit")) ? unitWidth : labelWidth;
            width = std::max(width, label->sizeHint().width());
        }
        for (QGridLayout* grid : {ui.machineGrid, ui.gcodeGrid, ui.scaleGrid}) {
            grid->setColumnMinimumWidth(0, labelWidth);
            grid->setColumnMinimumWidth(2, unitWidth);
        }
    }
};

SettingsDialog::SettingsDialog(AppState& state, SettingsStore& store, QWidget* parent)
    : QDialog(parent), d(std::make_unique<Private>(*this, state, store))
{
    Ui::SettingsDialog& ui = d->ui;
    ui.setupUi(this);

    // Enter in a field must not close the dialog.
    for (QAbstractButton* button : ui.buttonBox->buttons()) {
        if (auto* pushButton = qobject_cast<QPushButton*>(button))
            pushButton->setAutoDefault(false);
    }

    for (const PlainField& field : kPlainFields) {
        const char* name = field.name;
        connect(ui.*field.edit, &QLineEdit::textChanged, this,
                [this, name](const QString& text) { d->plainField_Change(name, text); });
    }
    connect(ui.Laser_power, &QLineEdit::textChanged, this,
            [this](const QString& text) { d->Laser_power_Change(text); });
    connect(ui.VitesseF, &QLineEdit::textChanged, this,
            [this](const QString& text) { d->VitesseF_Change(text); });
    connect(ui.OrigineX, &QLineEdit::textChanged, this,
            [this](const QString& text) { d->OrigineX_Change(text); });
    connect(ui.Type_machine, &QComboBox::currentIndexChanged, this,
            [this](int index) { d->Type_machine_Change(index); });
    connect(ui.Laser_mode, &QComboBox::currentIndexChanged, this,
            [this](int index) { d->Laser_mode_Click(index); });
    // Only the operator's choice installs a scale, even the one already active (its
    // built-in values come back).
    connect(ui.Standard, &QComboBox::activated, this,
            [this](int index) { d->Standard_Click(index); });
    connect(ui.Gen_entete, &QCheckBox::toggled, this,
            [this](bool checked) { d->checkBox_Click("Gen_entete", checked); });
    connect(ui.RollCleanup, &QCheckBox::toggled, this,
            [this](bool checked) { d->checkBox_Click("RollCleanup", checked); });

    // Alt+M is caught before the focused field sees it, whichever field that is.
    for (QWidget* child : findChildren<QWidget*>())
        child->installEventFilter(this);

    loadFromState();
}

SettingsDialog::~SettingsDialog() = default;

void SettingsDialog::loadFromState()
{
    showState();
    d->setUnlocked(false);
}

void SettingsDialog::showState()
{
    const QScopedValueRollback<bool> scope(d->loading, true);
    Ui::SettingsDialog& ui = d->ui;
    const Settings& settings = d->state.settings;

    // Any machine that is not the laser is the punch, as the rest of the program reads it.
    ui.Type_machine->setCurrentText(settings.isLaser() ? QStringLiteral("Laser") : QStringLiteral("Punch"));
    d->showMachinePair();
    d->showPlainFields();
    ui.Laser_power->setText(qText(settings.Laser_power));
    ui.Laser_mode->setCurrentIndex(ui.Laser_mode->findText(qText(settings.Laser_mode), Qt::MatchFixedString));
    ui.Gen_entete->setChecked(num(settings.Gen_entete) == 1.0);
    ui.RollCleanup->setChecked(num(settings.RollCleanup) != 0.0);
    d->fillStandardList();

    d->layOutForMachine();
    d->layOutForScale();
    d->layOutForCleanup();
}

bool SettingsDialog::unlocked() const
{
    return d->unlocked;
}

void SettingsDialog::keyPressEvent(QKeyEvent* event)
{
    if (isUnlockKey(*event)) {
        d->setUnlocked(true);
        event->accept();
        return;
    }
    QDialog::keyPressEvent(event);
}

bool SettingsDialog::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::KeyPress && isUnlockKey(*static_cast<QKeyEvent*>(event))) {
        d->setUnlocked(true);
        return true;
    }
    return QDialog::eventFilter(watched, event);
}

}  // namespace veltrin
