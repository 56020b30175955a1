#pragma once
// A Documents folder of its own for a test, and scale files in it.

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "app/data_folders.h"

namespace veltrin::testing {

class TempFolder {
public:
    explicit TempFolder(const std::string& prefix)
    {
        std::random_device random;
        m_path = std::filesystem::temp_directory_path() /
                 (prefix + std::to_string(random()) + std::to_string(random()));
        std::filesystem::create_directories(m_path);
    }
    ~TempFolder() { std::filesystem::remove_all(m_path); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string path() const { return m_path.string(); }

    // Writes "<path>/Veltrin/Instruments/<name>.txt".
    void writeScale(const std::string& name, const std::string& content) const
    {
        const std::filesystem::path folder = instrumentsFolder(path());
        std::filesystem::create_directories(folder);
        std::ofstream(folder / (name + ".txt"), std::ios::binary) << content;
    }

private:
    std::filesystem::path m_path;
};

// A 2-track file scale: roll speed 55.5, width 191, Talon 7.25, Dist_notes 5, fold 200.
inline const std::string kStreetOrgan =
    "// street organ\r\n55.5\r\n191\r\n7.25\r\n5\r\n200\r\n 2\r\n60\r\n62\r\n";

}  // namespace veltrin::testing
