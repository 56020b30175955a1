#include "app/setting_meanings.h"

namespace veltrin {

const SettingMeaning* settingMeaning(std::string_view key)
{
    static const SettingMeaning kMeanings[] = {
        {"Port", "", "serial port of the machine (ttyUSB0, /dev/ttyACM0, COM3)"},
        {"Type_machine", "", "tool of the machine: Laser or Punch"},
        {"VitesseF", "mm/min", "laser cutting feed"},
        {"OrigineX", "mm", "laser: distance from the homing point to the roll's X origin"},
        {"VitesseF_poin", "mm/min", "punch: feed of the moves between holes"},
        {"OrigineX_poin", "mm", "punch: distance from the homing point to the roll's X origin"},
        {"Laser_power", "0-1000", "laser maximum power, the S value of M3/M4"},
        {"Lgponts", "mm", "laser: length of a bridge left between pieces (0 = no bridges, else at least 0.1); punch: gap between strikes (0 or at least 0.1)"},
        {"Dist_ponts", "mm", "laser: length of a piece between two bridges (at least 1)"},
        {"Fourchette", "mm", "width of a travel-optimizing band (chosen by the width search)"},
        {"Laser_mode", "", "laser power mode: M3 constant power, M4 adaptive power"},
        {"L_poincon", "mm", "punch size along the roll (Y)"},
        {"Gen_entete", "0/1", "1 = write the homing header ($HX, G92) into programs"},
        {"Standard", "", "name of the organ scale (see the scales command)"},
        {"Vitcarton", "mm/s", "roll speed through the organ (27-29-note scale and file scales)"},
        {"Ldecoupe", "mm", "hole size across the roll (less than Dist_notes)"},
        {"Dist_notes", "mm", "spacing between track centres"},
        {"Talon", "mm", "distance from the roll border to the first track's axis"},
        {"BassesAF", "mm", "width of the four bass holes of the 20-note scale"},
        {"VitcartonAF", "mm/s", "roll speed, 20-note scale"},
        {"LdecoupeAF", "mm", "hole size across the roll, 20-note scale"},
        {"Dist_notesAF", "mm", "spacing between track centres, 20-note scale"},
        {"TalonAF", "mm", "roll border to the first track's axis, 20-note scale"},
        {"duree_trou_poincon", "s", "learned time per punch strike (999 = not measured yet)"},
        {"duree_metre_laser", "s/mm", "learned laser time per mm of cut and travel (999 = not measured yet)"},
        {"RollCleanup", "0/1", "1 = merge overlapping notes of a track, keep a bridge between notes (joining repeats too fast for it) and lengthen holes shorter than MinHoleLength, before the split"},
        {"MinHoleLength", "mm", "shortest hole the cleanup leaves along the roll (at most 20)"},
        {"longueur_point", "mm", "length of each dash burnt across a fold line"},
        {"Transpose", "semitones", "shift of every note before it is placed on a track (-24 to 24), or auto for the shift that loses fewest notes"},
        {"Channels", "", "MIDI channels placed on the roll, e.g. 1-9,11-16 (channel 10 is General MIDI percussion)"},
    };
    for (const SettingMeaning& entry : kMeanings) {
        if (entry.key == key)
            return &entry;
    }
    return nullptr;
}

}  // namespace veltrin
