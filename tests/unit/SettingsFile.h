// The machine-wide settings file of the test build, with a text of the test's choice.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

// Holds the test build's settings for a test, without a file at first, and removes the file at the
// end. There is one for the machine: tests that run at the same time in other processes wait.
class SettingsFile
{
public:
    SettingsFile()
    {
        std::filesystem::create_directories(LUMATIE_TEST_CONFIG_DIR);
        // The process of a death test works under its parent's lock.
        if (!testing::internal::InDeathTestChild()) {
            while (!std::filesystem::create_directory(kLock)) {
                removeStaleLock();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        remove();
    }
    SettingsFile(const SettingsFile&) = delete;
    SettingsFile& operator=(const SettingsFile&) = delete;
    ~SettingsFile()
    {
        remove();
        std::filesystem::remove(kLock);
    }

    void write(const std::string& text) const
    {
        std::ofstream(kFile, std::ios::binary | std::ios::trunc) << text;
    }

    void remove() const { std::filesystem::remove(kFile); }

private:
    // A test that crashed leaves its lock behind.
    static void removeStaleLock()
    {
        std::error_code error;
        const auto made = std::filesystem::last_write_time(kLock, error);
        const auto now = std::filesystem::file_time_type::clock::now();
        if (!error && now - made > std::chrono::seconds(30)) {
            std::filesystem::remove(kLock, error);
        }
    }

    static constexpr const char* kFile = LUMATIE_TEST_CONFIG_DIR "/Imagrelle.conf";
    static constexpr const char* kLock = LUMATIE_TEST_CONFIG_DIR "/lock";
};
