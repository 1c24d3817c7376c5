// Folders and files to work with. Paths are UTF-8.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

// A fresh folder, removed with everything in it at the end.
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        // The process of a death test could not remove one.
        if (testing::internal::InDeathTestChild()) {
            m_path = (std::filesystem::temp_directory_path() / "lumatie-none").u8string();
            return;
        }
        std::random_device number;
        do {
            m_path = (std::filesystem::temp_directory_path() / "lumatie-").u8string() +
                     std::to_string(number());
        } while (!std::filesystem::create_directory(m_path));
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& path() const { return m_path; }

    // The path of something in it.
    std::string path(const std::string& name) const { return m_path + "/" + name; }

    // Makes a folder in it and returns its path.
    std::string makeFolder(const std::string& name) const
    {
        const auto folder = std::filesystem::u8path(m_path) / std::filesystem::u8path(name);
        std::filesystem::create_directory(folder);
        return folder.u8string();
    }

    // How many entries there are.
    std::ptrdiff_t size() const
    {
        return std::distance(std::filesystem::directory_iterator(m_path),
                             std::filesystem::directory_iterator());
    }

private:
    std::string m_path;
};

// Makes a folder the current one while it lives.
class CurrentFolder
{
public:
    explicit CurrentFolder(const std::string& path) : m_before(std::filesystem::current_path())
    {
        moveTo(path);
    }
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;
    ~CurrentFolder()
    {
        std::error_code ignored;
        std::filesystem::current_path(m_before, ignored);
    }

    static void moveTo(const std::string& path)
    {
        std::filesystem::current_path(std::filesystem::u8path(path));
    }

private:
    std::filesystem::path m_before;
};

// The bytes of a file; empty when there is none.
inline std::string contentOf(const std::string& path)
{
    const std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}
