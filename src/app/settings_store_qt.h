#pragma once
// QtSettingsStore: the settings store on QSettings, organization "Veltrin", application
// "Veltrin", group "Startup"; every value is kept as a string. Each write is flushed at
// once, so settings saved as they change survive a crash.

#include <QSettings>

#include "app/settings_store.h"

namespace veltrin {

class QtSettingsStore final : public SettingsStore {
public:
    QtSettingsStore();

    using SettingsStore::read;
    std::optional<std::string> read(std::string_view key) override;
    void write(std::string_view key, std::string_view value) override;
    // "Settings file ...: <path>" when QSettings met a format error (the keys it could not
    // read take their defaults) or an access error (all of them do), else empty.
    std::string problem() const override;

private:
    QSettings m_settings;
};

}  // namespace veltrin
