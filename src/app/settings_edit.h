#pragma once
// Edits of the settings while the program runs, as the settings dialog makes them: each
// edit changes the main window's field and is saved to the store at once, under the key
// the shut-down would save it under, so a crash loses nothing.
//
// The caller regenerates the plan after an edit of Type_machine, Lgponts, Dist_ponts or
// Fourchette (the first three only once demarrage_fini is set).

#include <string>
#include <string_view>

#include "app/app_state.h"
#include "app/settings_store.h"

namespace veltrin {

// Sets the field named field (a Settings field name, or "Port" for AdressePort) to text
// and saves it. Laser_power above 1000 becomes "1000" first. Changing Type_machine keeps
// both speed pairs. The scale values are saved under the AF keys while the 20-note scale
// is active, under their own keys otherwise; BassesAF is saved only while the 20-note
// scale is active. Returns false for an unknown field (nothing changes).
bool changeSetting(AppState& state, SettingsStore& store, std::string_view field,
                   std::string_view text);

// The dialog's VitesseF and OrigineX fields show the pair of the active machine:
// VitesseF/OrigineX for the laser, VitesseF_poin/OrigineX_poin for the punch.
const std::string& dialogVitesseF(const Settings& settings);
const std::string& dialogOrigineX(const Settings& settings);

// VitesseF_Change / OrigineX_Change: the dialog's field edits the active machine's pair.
void VitesseF_Change(AppState& state, SettingsStore& store, std::string_view text);
void OrigineX_Change(AppState& state, SettingsStore& store, std::string_view text);

// Standard_Click: the operator picks a scale by name; it is installed with its built-in
// or file values (Def_standard) and the name and scale values are saved.
void Standard_Click(AppState& state, SettingsStore& store, std::string_view name);

// Saves Vitcarton, Ldecoupe, Dist_notes, Talon (and BassesAF) as quitter_Click does: under
// the AF keys while the 20-note scale is active, else under their own keys.
void saveScaleValues(const AppState& state, SettingsStore& store);

}  // namespace veltrin
