#pragma once
// SettingsDialog ("Settings", the Param_perf command): edits the machine and scale settings.
// It holds nothing of its own: every edit goes at once into the application state through
// the core's change handlers (settings_edit.h), which save it, and settingEdited() tells the
// window, which regenerates the plan where the edit changes the program. The dialog lays
// itself out for the machine (laser or punch) and the scale (the 20-note row).

#include <QDialog>

#include <memory>

namespace veltrin {

struct AppState;
class SettingsStore;

class SettingsDialog : public QDialog {
    Q_OBJECT
public:
    SettingsDialog(AppState& state, SettingsStore& store, QWidget* parent = nullptr);
    ~SettingsDialog() override;

    // The dialog's load: copies the state's values into the fields (every field, the
    // machine's speed pair included), fills the Standard list (the built-in scales, then the
    // scale files) and lays the dialog out; the unlock flag is cleared. Emits nothing.
    void loadFromState();
    // The state's values shown again (the width search and a resume file change Fourchette,
    // for one), the unlock flag left as it is. Emits nothing.
    void showState();

    // Alt+M was pressed: Vitcarton, Talon and Dist_notes are editable.
    bool unlocked() const;

signals:
    // field (a Settings field name, e.g. "Lgponts", "Type_machine", "Standard") was changed
    // in the state and saved. The speed and origin fields name the active machine's pair
    // ("VitesseF"/"OrigineX" for the laser, "VitesseF_poin"/"OrigineX_poin" for the punch);
    // a chosen scale is one "Standard", its new values included.
    void settingEdited(const QString& field);

protected:
    void keyPressEvent(QKeyEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

}  // namespace veltrin
