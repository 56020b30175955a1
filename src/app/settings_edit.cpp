#include "app/settings_edit.h"

#include "scales/scale_file.h"

namespace veltrin {

namespace {

struct ScaleKey {
    std::string_view field;
    std::string_view alderFennKey;
};

// The scale values and their keys while the 20-note scale is active.
constexpr ScaleKey kScaleKeys[] = {
    {"Vitcarton", "VitcartonAF"},
    {"Ldecoupe", "LdecoupeAF"},
    {"Dist_notes", "Dist_notesAF"},
    {"Talon", "TalonAF"},
};

// Saves one field (named by its store key) under the key quitter_Click saves it under.
void saveField(const AppState& state, SettingsStore& store, std::string_view field,
               const std::string& value)
{
    if (field == "BassesAF") {
        if (state.scale.standard_AF_actif)
            store.write("BassesAF", value);
        return;
    }
    for (const ScaleKey& entry : kScaleKeys) {
        if (entry.field == field) {
            store.write(state.scale.standard_AF_actif ? entry.alderFennKey : entry.field, value);
            return;
        }
    }
    store.write(field, value);
}

}  // namespace

bool changeSetting(AppState& state, SettingsStore& store, std::string_view field,
                   std::string_view text)
{
    const std::string_view key = field == "AdressePort" ? std::string_view("Port") : field;
    std::string* target = settingField(state.settings, key);
    if (!target)
        return false;
    *target = std::string(text);
    if (key == "Laser_power" && num(*target) > 1000.0)
        *target = "1000";
    saveField(state, store, key, *target);
    return true;
}

const std::string& dialogVitesseF(const Settings& settings)
{
    return settings.isLaser() ? settings.VitesseF : settings.VitesseF_poin;
}

const std::string& dialogOrigineX(const Settings& settings)
{
    return settings.isLaser() ? settings.OrigineX : settings.OrigineX_poin;
}

void VitesseF_Change(AppState& state, SettingsStore& store, std::string_view text)
{
    changeSetting(state, store, state.settings.isLaser() ? "VitesseF" : "VitesseF_poin", text);
}

void OrigineX_Change(AppState& state, SettingsStore& store, std::string_view text)
{
    changeSetting(state, store, state.settings.isLaser() ? "OrigineX" : "OrigineX_poin", text);
}

void Standard_Click(AppState& state, SettingsStore& store, std::string_view name)
{
    changeSetting(state, store, "Standard", name);
    Def_standard(state.dossier_documents, state.settings, state.scale, state.user_msg_list);
    saveScaleValues(state, store);
}

void saveScaleValues(const AppState& state, SettingsStore& store)
{
    const Settings& settings = state.settings;
    if (state.scale.standard_AF_actif) {
        store.write("BassesAF", settings.BassesAF);
        store.write("VitcartonAF", settings.Vitcarton);
        store.write("LdecoupeAF", settings.Ldecoupe);
        store.write("Dist_notesAF", settings.Dist_notes);
        store.write("TalonAF", settings.Talon);
    } else {
        store.write("Vitcarton", settings.Vitcarton);
        store.write("Ldecoupe", settings.Ldecoupe);
        store.write("Dist_notes", settings.Dist_notes);
        store.write("Talon", settings.Talon);
    }
}

}  // namespace veltrin
