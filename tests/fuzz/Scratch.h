// A folder for the pictures of a fuzz target.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include "platform/Platform.h"

namespace fuzz {

// It lies in memory where the system has such a place, and is removed at the end.
class Scratch
{
public:
    Scratch()
    {
        const std::filesystem::path memory = "/dev/shm";
        const std::filesystem::path base =
            std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
        m_path = (base / ("lumatie-fuzz-" + std::to_string(platform::processNumber()))).string();
        std::filesystem::remove_all(m_path);  // of a process that crashed
        std::filesystem::create_directories(m_path);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& path() const { return m_path; }

    // Removes the files in it.
    void clear() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
            std::filesystem::remove(entry.path());
        }
    }

    bool isEmpty() const
    {
        return std::filesystem::directory_iterator(m_path) == std::filesystem::directory_iterator();
    }

private:
    std::string m_path;
};

}  // namespace fuzz
