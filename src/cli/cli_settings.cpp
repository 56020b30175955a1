// veltrin-cli settings: every key of the settings store with its stored value, its default,
// its unit and its meaning.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "app/setting_meanings.h"
#include "app/settings_store_qt.h"
#include "base/settings.h"
#include "cli/cli_commands.h"

namespace veltrin::cli {

namespace {

constexpr const char* kNotStored = "-";

int runSettings()
{
    QtSettingsStore store;
    if (const std::string problem = store.problem(); !problem.empty())
        std::fprintf(stderr, "%s\n", problem.c_str());

    struct Row {
        std::string key, value, defaultValue, unit, meaning;
    };
    std::vector<Row> rows;
    rows.push_back({"KEY", "STORED", "DEFAULT", "UNIT", "MEANING"});
    for (const SettingKey& entry : settingKeys()) {
        const SettingMeaning* meaning = settingMeaning(entry.key);
        rows.push_back({std::string(entry.key), store.read(entry.key).value_or(kNotStored),
                        std::string(entry.defaultValue), meaning ? std::string(meaning->unit) : "",
                        meaning ? std::string(meaning->meaning) : ""});
    }
    std::size_t widths[4] = {};
    for (const Row& row : rows) {
        const std::string* cells[] = {&row.key, &row.value, &row.defaultValue, &row.unit};
        for (std::size_t i = 0; i < 4; ++i)
            widths[i] = std::max(widths[i], cells[i]->size());
    }
    for (const Row& row : rows) {
        std::printf("%-*s  %-*s  %-*s  %-*s  %s\n", static_cast<int>(widths[0]), row.key.c_str(),
                    static_cast<int>(widths[1]), row.value.c_str(), static_cast<int>(widths[2]),
                    row.defaultValue.c_str(), static_cast<int>(widths[3]), row.unit.c_str(), row.meaning.c_str());
    }
    std::fflush(stdout);
    return kExitOk;
}

}  // namespace

void addSettingsCommand(CLI::App& app, int& exitCode)
{
    CLI::App* command = app.add_subcommand(
        "settings", "List every setting: its stored value (\"-\" when not stored), default, unit and meaning");
    command->callback([&exitCode] { exitCode = runSettings(); });
}

}  // namespace veltrin::cli
