#pragma once
// A fresh folder under the system's temporary folder, removed with everything in it.

#include <filesystem>
#include <random>
#include <string>

namespace veltrin {

class TempDir {
public:
    TempDir()
    {
        std::random_device random;
        m_path = std::filesystem::temp_directory_path() /
                 ("veltrin-import-" + std::to_string(random()) + std::to_string(random()));
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

private:
    std::filesystem::path m_path;
};

}  // namespace veltrin
