#pragma once
// The operator's machine and scale settings, held as text exactly as the settings store
// keeps them. Numbers are read from them with the leading-number rule (num()).

#include <string>
#include <string_view>
#include <vector>

namespace veltrin {

struct Settings {
    // AdressePort: serial port name, stored under the key "Port".
    std::string AdressePort = "3";
    // Type_machine: "Laser" for the laser, "Punch" for the punch (any case).
    std::string Type_machine = "Laser";
    // VitesseF / OrigineX: laser feed (mm/min) and homing point to roll X origin (mm).
    std::string VitesseF = "800";
    std::string OrigineX = "5";
    // VitesseF_poin / OrigineX_poin: the same pair for the punch.
    std::string VitesseF_poin = "8000";
    std::string OrigineX_poin = "10.5";
    // Laser_power: laser maximum power, the G-code S value (0..1000).
    std::string Laser_power = "1000";
    // Lgponts: length of cardboard left as a bridge, mm.
    std::string Lgponts = "1.5";
    // Dist_ponts: distance between bridges, mm.
    std::string Dist_ponts = "15";
    // Fourchette ("fork"): width of a travel-optimizing band, mm.
    std::string Fourchette = "7";
    // Laser_mode: "M3" constant power, "M4" adaptive power.
    std::string Laser_mode = "M3";
    // L_poincon: punch size along the roll (Y), mm.
    std::string L_poincon = "3";
    // Gen_entete ("generate header"): "1" writes the homing header into programs.
    std::string Gen_entete = "1";
    // Standard: name of the active organ scale.
    std::string Standard = "Kolby 27-29";
    // Vitcarton: roll speed through the organ, mm/s.
    std::string Vitcarton = "60";
    // Ldecoupe: hole size across the roll, mm.
    std::string Ldecoupe = "3";
    // Dist_notes: spacing between track centres, mm.
    std::string Dist_notes = "4.2";
    // Talon ("heel"): roll border to the first track's axis, mm.
    std::string Talon = "6.3";
    // BassesAF: X size of the four lowest tracks of the 20-note scale, mm.
    std::string BassesAF = "4";
    // Learned durations; "999" until first measured.
    std::string duree_trou_poincon = "999";
    std::string duree_metre_laser = "999";
    // RollCleanup: "1" cleans each track's notes before the split (overlapping notes become
    // one run, back-to-back repeats keep card between them, no hole under MinHoleLength);
    // "0" splits the notes as they are.
    std::string RollCleanup = "1";
    // MinHoleLength: the shortest hole the cleanup leaves along the roll, mm. 3 mm is the
    // hole of one default punch strike, which organs read; at the default 60 mm/s it is the
    // 50 ms the split keeps for a note's last piece, and it is many times the laser's kerf.
    // A punched hole is never shorter than one strike (L_poincon) anyway.
    std::string MinHoleLength = "3";
    // longueur_point ("dash length"): length of each dash burnt across a fold line, mm.
    std::string longueur_point = "2";
    // Transpose: semitones added to every note before it is placed on a track; "auto" chooses
    // the shift (within two octaves) that loses the fewest note-seconds.
    std::string Transpose = "0";
    // Channels: the MIDI channels (1-16) whose notes go on the roll, as a list of numbers and
    // ranges ("1-9,11-16" leaves out the General MIDI percussion channel 10).
    std::string Channels = "1-9,11-16";

    // "Laser" in any case ("laser", "LASER") is the laser.
    bool isLaser() const
    {
        constexpr std::string_view kLaser = "laser";
        if (Type_machine.size() != kLaser.size())
            return false;
        for (std::size_t i = 0; i < kLaser.size(); ++i) {
            const char c = Type_machine[i];
            if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != kLaser[i])
                return false;
        }
        return true;
    }
};

// A settings field read as a number (leading-number rule: "." separator, no number -> 0).
double num(const std::string& field);

// One key of the settings store (section "Startup") and the text used when it is missing.
struct SettingKey {
    std::string_view key;
    std::string_view defaultValue;
};

// Every key of the store with its default. "Port" holds AdressePort; the AF twins
// (VitcartonAF, LdecoupeAF, Dist_notesAF, TalonAF) hold the 20-note scale's values of
// Vitcarton, Ldecoupe, Dist_notes and Talon.
const std::vector<SettingKey>& settingKeys();

// The default text of key; empty for an unknown key.
std::string_view settingDefault(std::string_view key);

// True when key is one of settingKeys().
bool isSettingKey(std::string_view key);

// The field that key names directly: its field of the same name, AdressePort for "Port".
// nullptr for the AF twins (they have no field of their own) and for unknown keys.
std::string* settingField(Settings& settings, std::string_view key);

}  // namespace veltrin
