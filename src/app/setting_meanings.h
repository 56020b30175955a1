#pragma once
// What each key of the settings store means and in which unit, for listings and help texts.

#include <string_view>

namespace veltrin {

struct SettingMeaning {
    std::string_view key;
    std::string_view unit;     // empty for texts and switches
    std::string_view meaning;
};

// The entry of key, or nullptr for a key without one.
const SettingMeaning* settingMeaning(std::string_view key);

}  // namespace veltrin
