#pragma once
// A fresh folder under the system's temporary folder, removed with everything in it, and
// the file helpers of the tests.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "base/data_folders.h"

namespace veltrin::testing {

inline void writeText(const std::filesystem::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string readText(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class TempDir {
public:
    TempDir()
    {
        std::random_device random;
        m_path = std::filesystem::temp_directory_path() /
                 ("veltrin-test-" + std::to_string(random()) + std::to_string(random()));
        std::filesystem::create_directories(m_path);
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::string str() const { return m_path.string(); }

    // Writes the scale file "<path>/Veltrin/Instruments/<name>.txt".
    void writeScale(const std::string& name, const std::string& content) const
    {
        const std::filesystem::path folder = instrumentsFolder(str());
        std::filesystem::create_directories(folder);
        writeText(folder / (name + ".txt"), content);
    }

private:
    std::filesystem::path m_path;
};

// A 2-track file scale: roll speed 55.5, width 191, Talon 7.25, Dist_notes 5, fold 200.
inline const std::string kStreetOrgan =
    "// street organ\r\n55.5\r\n191\r\n7.25\r\n5\r\n200\r\n 2\r\n60\r\n62\r\n";

}  // namespace veltrin::testing
