#pragma once
// Start-up and shut-down of the main window's state: reading every setting with its
// default, the data folders, the active organ scale, and saving at quit.
//
// Use: fill StartupFolders (the Qt side resolves them, see folders_qt.h), call Form_Load
// with the settings store and the hooks of the front end; at quit call quitter_Click.
// A run on defaults only passes an empty MemorySettingsStore; a run with "KEY=VALUE"
// overrides that must not be saved uses startForRun.

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "app/app_state.h"
#include "app/settings_store.h"
#include "base/result.h"

namespace veltrin {

// Folders found by the platform layer; the core reads no environment itself.
struct StartupFolders {
    // The folder of the executable (with or without a trailing "/").
    std::string applicationDir;
    // The Documents folder: VELTRIN_DOCUMENTS when set, else the platform's.
    std::string documentsDir;
};

// The front end's parts of start-up; an empty hook is skipped.
struct StartupHooks {
    std::function<void()> paintRoll;     // 11. paint the roll strips in the cardboard colour
    std::function<void()> fillGlossary;  // 13. fill the Grbl settings glossary
    std::function<void()> openPort;      // 14. open AdressePort and run connexion_on
};

// The front end's parts of shut-down, run after the settings are saved.
struct ShutdownHooks {
    std::function<void()> closeMidi;  // 4. close the MIDI output
    std::function<void()> closePort;  // 5. close the serial port when open
    std::function<void()> endProgram; // 6. close the windows and leave the event loop
};

// Form_Load: the start-up sequence. Logs the store's problem (a settings file that could not
// be read, with its path) first. Reads every setting (a missing key gives its default,
// a value that is no number is kept as text), creates the Instruments and Temp folders
// when missing (logging "Folder created: <path>"), installs the active scale and lets the
// stored values of a built-in scale replace its built-in ones, then sets facteur_zoom and
// demarrage_fini.
void Form_Load(AppState& state, SettingsStore& store, const StartupFolders& folders,
               const StartupHooks& hooks = {});

// quitter_Click ("quit"): saves every setting in the fixed order (the scale values under
// the AF keys while the 20-note scale is active, under their own keys otherwise, a file
// scale included), then runs the shut-down hooks.
void quitter_Click(AppState& state, SettingsStore& store, const ShutdownHooks& hooks = {});

// Creates a folder (and its parents) when missing and logs "Folder created: <path>", or
// "Folder not created: <path>" when it cannot be made.
void ensureFolder(const std::string& path, MessageLog& log);

enum class SettingsError {
    BadAssignment,  // not "KEY=VALUE"
    UnknownKey,     // KEY is not a key of the settings store
};

// "KEY=VALUE" assignments of a command line, checked against the store's keys.
Result<std::map<std::string, std::string>, SettingsError>
parseSettingAssignments(const std::vector<std::string>& assignments);

// A store that reads overrides first, then the base store (if any), and keeps every write
// to itself: the base store is never changed.
class OverrideSettingsStore final : public SettingsStore {
public:
    OverrideSettingsStore(SettingsStore* base, std::map<std::string, std::string> overrides)
        : m_base(base), m_values(std::move(overrides))
    {
    }
    using SettingsStore::read;
    std::optional<std::string> read(std::string_view key) override;
    void write(std::string_view key, std::string_view value) override;
    std::string problem() const override { return m_base ? m_base->problem() : std::string(); }

private:
    SettingsStore* m_base;
    std::map<std::string, std::string> m_values;
};

// Start-up for one command-line run: the stored settings (base, or the defaults alone when
// base is null) with the "KEY=VALUE" overrides laid over them, none of it saved. Keys are
// the store's ("Port", "VitcartonAF", ...). An override of Vitcarton, Ldecoupe, Dist_notes
// or Talon also applies to a file scale, whose file otherwise supplies them.
Result<bool, SettingsError> startForRun(AppState& state, SettingsStore* base,
                                        const std::vector<std::string>& overrides,
                                        const StartupFolders& folders,
                                        const StartupHooks& hooks = {});

}  // namespace veltrin
