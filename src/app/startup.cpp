#include "app/startup.h"

#include <filesystem>
#include <system_error>

#include "app/settings_edit.h"
#include "base/data_folders.h"
#include "base/numeric_text.h"
#include "plan/plan_checks.h"
#include "scales/scale_file.h"

namespace veltrin {

namespace {

void loadSetting(SettingsStore& store, std::string_view key, std::string& field)
{
    field = store.read(key, settingDefault(key));
}

// The machine's laser power has a ceiling of 1000 and no floor.
void applyLaserPowerCeiling(std::string& field)
{
    if (num(field) > 1000.0)
        field = "1000";
}

// Gen_entete goes into a check box as 0 or 1; any other text ("yes", "2") is kept as it
// stands, so that the generation refuses it by name as it refuses it in a resume file.
void loadGenEntete(SettingsStore& store, Settings& settings)
{
    const std::string text = store.read("Gen_entete", settingDefault("Gen_entete"));
    const std::optional<double> value = strictNumber(text);
    if (value && (*value == 0.0 || *value == 1.0))
        settings.Gen_entete.assign(1, *value == 1.0 ? '1' : '0');
    else
        settings.Gen_entete = text;
}

std::string withoutTrailingSeparators(std::string path)
{
    while (path.size() > 1 && (path.back() == '/' || path.back() == '\\'))
        path.pop_back();
    return path;
}

}  // namespace

void ensureFolder(const std::string& path, MessageLog& log)
{
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        return;
    std::filesystem::create_directories(path, error);
    if (!error && std::filesystem::is_directory(path, error))
        log.append("Folder created: " + path);
    else
        log.append("Folder not created: " + path);
}

void Form_Load(AppState& state, SettingsStore& store, const StartupFolders& folders,
               const StartupHooks& hooks)
{
    Settings& settings = state.settings;
    if (const std::string problem = store.problem(); !problem.empty())
        state.user_msg_list.append(problem);

    // 1. dossier_appli, with its trailing separator.
    state.dossier_appli = folders.applicationDir;
    if (!state.dossier_appli.empty() && state.dossier_appli.back() != '/')
        state.dossier_appli.push_back('/');

    // 3. to 6. The machine settings. Each key goes into the field of its own name: the
    // dialog's single speed/origin pair mirrors into the active machine's pair, so both
    // pairs end up in their own fields whatever the machine.
    loadSetting(store, "Port", settings.AdressePort);
    loadSetting(store, "Type_machine", settings.Type_machine);
    loadSetting(store, "VitesseF", settings.VitesseF);
    loadSetting(store, "OrigineX", settings.OrigineX);
    loadSetting(store, "VitesseF_poin", settings.VitesseF_poin);
    loadSetting(store, "OrigineX_poin", settings.OrigineX_poin);
    loadSetting(store, "Laser_power", settings.Laser_power);
    applyLaserPowerCeiling(settings.Laser_power);
    loadSetting(store, "Lgponts", settings.Lgponts);
    loadSetting(store, "Dist_ponts", settings.Dist_ponts);
    loadSetting(store, "Fourchette", settings.Fourchette);
    loadSetting(store, "Laser_mode", settings.Laser_mode);
    loadSetting(store, "L_poincon", settings.L_poincon);
    loadGenEntete(store, settings);
    loadSetting(store, "Standard", settings.Standard);

    // 7. lire_dossier_documents, and the data folders below it.
    state.dossier_documents = withoutTrailingSeparators(folders.documentsDir);
    ensureFolder(instrumentsFolder(state.dossier_documents), state.user_msg_list);
    ensureFolder(tempFolder(state.dossier_documents), state.user_msg_list);

    // 8. The active scale. A missing or faulty file leaves what it could not read as it was.
    Def_standard(state.dossier_documents, settings, state.scale, state.user_msg_list);

    // 9. A built-in scale's stored values replace its built-in ones; a file scale's file
    // supplies its own.
    if (settings.Standard == kKolbyName) {
        loadSetting(store, "Vitcarton", settings.Vitcarton);
        loadSetting(store, "Ldecoupe", settings.Ldecoupe);
        loadSetting(store, "Dist_notes", settings.Dist_notes);
        loadSetting(store, "Talon", settings.Talon);
    } else if (settings.Standard == kAlderFennName) {
        loadSetting(store, "BassesAF", settings.BassesAF);
        loadSetting(store, "VitcartonAF", settings.Vitcarton);
        loadSetting(store, "LdecoupeAF", settings.Ldecoupe);
        loadSetting(store, "Dist_notesAF", settings.Dist_notes);
        loadSetting(store, "TalonAF", settings.Talon);
    }

    // 10. The learned durations.
    loadSetting(store, "duree_trou_poincon", settings.duree_trou_poincon);
    loadSetting(store, "duree_metre_laser", settings.duree_metre_laser);
    // The roll cleanup before the split.
    loadSetting(store, "RollCleanup", settings.RollCleanup);
    loadSetting(store, "MinHoleLength", settings.MinHoleLength);
    loadSetting(store, "longueur_point", settings.longueur_point);
    loadSetting(store, "Transpose", settings.Transpose);
    loadSetting(store, "Channels", settings.Channels);

    // 11. to 14.
    if (hooks.paintRoll)
        hooks.paintRoll();
    state.facteur_zoom = 3.0;
    state.demarrage_fini = true;
    if (hooks.fillGlossary)
        hooks.fillGlossary();
    if (hooks.openPort)
        hooks.openPort();
}

void quitter_Click(AppState& state, SettingsStore& store, const ShutdownHooks& hooks)
{
    const Settings& settings = state.settings;

    // 1. The machine settings and the scale name.
    store.write("Port", settings.AdressePort);
    store.write("Type_machine", settings.Type_machine);
    store.write("VitesseF", settings.VitesseF);
    store.write("OrigineX", settings.OrigineX);
    store.write("VitesseF_poin", settings.VitesseF_poin);
    store.write("OrigineX_poin", settings.OrigineX_poin);
    store.write("Lgponts", settings.Lgponts);
    store.write("Dist_ponts", settings.Dist_ponts);
    store.write("Fourchette", settings.Fourchette);
    store.write("Laser_mode", settings.Laser_mode);
    store.write("L_poincon", settings.L_poincon);
    store.write("Gen_entete", settings.Gen_entete);
    store.write("Standard", settings.Standard);
    store.write("Laser_power", settings.Laser_power);

    // 2. The scale values; a file scale's values land on the 27-29-note scale's keys.
    saveScaleValues(state, store);

    // 3. The learned durations.
    store.write("duree_trou_poincon", settings.duree_trou_poincon);
    store.write("duree_metre_laser", settings.duree_metre_laser);
    store.write("RollCleanup", settings.RollCleanup);
    store.write("MinHoleLength", settings.MinHoleLength);
    store.write("longueur_point", settings.longueur_point);
    store.write("Transpose", settings.Transpose);
    store.write("Channels", settings.Channels);

    // 4. to 6.
    if (hooks.closeMidi)
        hooks.closeMidi();
    if (hooks.closePort)
        hooks.closePort();
    if (hooks.endProgram)
        hooks.endProgram();
}

Result<std::map<std::string, std::string>, SettingsError>
parseSettingAssignments(const std::vector<std::string>& assignments)
{
    std::map<std::string, std::string> values;
    for (const std::string& assignment : assignments) {
        const std::size_t equals = assignment.find('=');
        if (equals == std::string::npos || equals == 0)
            return fail(SettingsError::BadAssignment, assignment);
        std::string key = assignment.substr(0, equals);
        if (!isSettingKey(key))
            return fail(SettingsError::UnknownKey, key);
        values[std::move(key)] = assignment.substr(equals + 1);
    }
    return values;
}

std::optional<std::string> OverrideSettingsStore::read(std::string_view key)
{
    const auto it = m_values.find(std::string(key));
    if (it != m_values.end())
        return it->second;
    return m_base ? m_base->read(key) : std::nullopt;
}

void OverrideSettingsStore::write(std::string_view key, std::string_view value)
{
    m_values[std::string(key)] = std::string(value);
}

Result<bool, SettingsError> startForRun(AppState& state, SettingsStore* base,
                                        const std::vector<std::string>& overrides,
                                        const StartupFolders& folders,
                                        const StartupHooks& hooks)
{
    auto parsed = parseSettingAssignments(overrides);
    if (!parsed)
        return fail(parsed.error(), parsed.detail());
    const std::map<std::string, std::string> values = parsed.value();
    OverrideSettingsStore store(base, std::move(parsed).value());
    Form_Load(state, store, folders, hooks);

    // A file scale reads none of the scale keys at start-up; an explicit override still
    // counts for this run.
    if (!isBuiltInScale(state.settings.Standard)) {
        for (const char* key : {"Vitcarton", "Ldecoupe", "Dist_notes", "Talon"}) {
            const auto it = values.find(key);
            if (it != values.end())
                *settingField(state.settings, key) = it->second;
        }
    }
    return true;
}

}  // namespace veltrin
