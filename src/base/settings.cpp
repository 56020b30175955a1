#include "base/settings.h"

#include "base/numeric_text.h"

namespace veltrin {

double num(const std::string& field)
{
    return leadingNumber(field);
}

const std::vector<SettingKey>& settingKeys()
{
    static const std::vector<SettingKey> keys = {
        {"Port", "3"},
        {"Type_machine", "Laser"},
        {"VitesseF", "800"},
        {"OrigineX", "5"},
        {"VitesseF_poin", "8000"},
        {"OrigineX_poin", "10.5"},
        {"Laser_power", "1000"},
        {"Lgponts", "1.5"},
        {"Dist_ponts", "15"},
        {"Fourchette", "7"},
        {"Laser_mode", "M3"},
        {"L_poincon", "3"},
        {"Gen_entete", "1"},
        {"Standard", "Kolby 27-29"},
        {"Vitcarton", "60"},
        {"Ldecoupe", "3"},
        {"Dist_notes", "4.2"},
        {"Talon", "6.3"},
        {"BassesAF", "4"},
        {"VitcartonAF", "60"},
        {"LdecoupeAF", "4"},
        {"Dist_notesAF", "6"},
        {"TalonAF", "10"},
        {"duree_trou_poincon", "999"},
        {"duree_metre_laser", "999"},
        {"RollCleanup", "1"},
        {"MinHoleLength", "3"},
        {"longueur_point", "2"},
        {"Transpose", "0"},
        {"Channels", "1-9,11-16"},
    };
    return keys;
}

std::string_view settingDefault(std::string_view key)
{
    for (const SettingKey& entry : settingKeys()) {
        if (entry.key == key)
            return entry.defaultValue;
    }
    return {};
}

bool isSettingKey(std::string_view key)
{
    for (const SettingKey& entry : settingKeys()) {
        if (entry.key == key)
            return true;
    }
    return false;
}

std::string* settingField(Settings& settings, std::string_view key)
{
    struct FieldOf {
        std::string_view key;
        std::string Settings::*field;
    };
    static const FieldOf fields[] = {
        {"Port", &Settings::AdressePort},
        {"Type_machine", &Settings::Type_machine},
        {"VitesseF", &Settings::VitesseF},
        {"OrigineX", &Settings::OrigineX},
        {"VitesseF_poin", &Settings::VitesseF_poin},
        {"OrigineX_poin", &Settings::OrigineX_poin},
        {"Laser_power", &Settings::Laser_power},
        {"Lgponts", &Settings::Lgponts},
        {"Dist_ponts", &Settings::Dist_ponts},
        {"Fourchette", &Settings::Fourchette},
        {"Laser_mode", &Settings::Laser_mode},
        {"L_poincon", &Settings::L_poincon},
        {"Gen_entete", &Settings::Gen_entete},
        {"Standard", &Settings::Standard},
        {"Vitcarton", &Settings::Vitcarton},
        {"Ldecoupe", &Settings::Ldecoupe},
        {"Dist_notes", &Settings::Dist_notes},
        {"Talon", &Settings::Talon},
        {"BassesAF", &Settings::BassesAF},
        {"duree_trou_poincon", &Settings::duree_trou_poincon},
        {"duree_metre_laser", &Settings::duree_metre_laser},
        {"RollCleanup", &Settings::RollCleanup},
        {"MinHoleLength", &Settings::MinHoleLength},
        {"longueur_point", &Settings::longueur_point},
        {"Transpose", &Settings::Transpose},
        {"Channels", &Settings::Channels},
    };
    for (const FieldOf& entry : fields) {
        if (entry.key == key)
            return &(settings.*entry.field);
    }
    return nullptr;
}

}  // namespace veltrin
