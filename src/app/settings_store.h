#pragma once
// SettingsStore: the per-user store of named text values (section "Startup"). The Qt
// adapter keeps them in QSettings; tests and "--defaults" runs use MemorySettingsStore.

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace veltrin {

class SettingsStore {
public:
    virtual ~SettingsStore() = default;
    // The stored text of key, or nullopt when the key is missing.
    virtual std::optional<std::string> read(std::string_view key) = 0;
    virtual void write(std::string_view key, std::string_view value) = 0;
    // Why the store could not be read (its path and the reason), or empty: the start-up logs it.
    virtual std::string problem() const { return {}; }

    std::string read(std::string_view key, std::string_view defaultValue)
    {
        auto value = read(key);
        return value ? *value : std::string(defaultValue);
    }
};

class MemorySettingsStore final : public SettingsStore {
public:
    using SettingsStore::read;
    std::optional<std::string> read(std::string_view key) override
    {
        auto it = m_values.find(std::string(key));
        if (it == m_values.end())
            return std::nullopt;
        return it->second;
    }
    void write(std::string_view key, std::string_view value) override
    {
        m_values[std::string(key)] = std::string(value);
    }
    const std::map<std::string, std::string>& values() const { return m_values; }

private:
    std::map<std::string, std::string> m_values;
};

}  // namespace veltrin
