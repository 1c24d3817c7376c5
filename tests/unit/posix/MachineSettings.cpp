#include "MachineSettings.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "posix/SettingsFile.h"

namespace {

constexpr const char* kFile = LUMATIE_TEST_CONFIG_DIR "/Imagrelle.conf";
constexpr const char* kLock = LUMATIE_TEST_CONFIG_DIR "/lock";

// A test that crashed leaves its lock behind.
void removeStaleLock()
{
    std::error_code error;
    const auto made = std::filesystem::last_write_time(kLock, error);
    const auto now = std::filesystem::file_time_type::clock::now();
    if (!error && now - made > std::chrono::seconds(30)) {
        std::filesystem::remove(kLock, error);
    }
}

}  // namespace

MachineSettings::MachineSettings()
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

MachineSettings::~MachineSettings()
{
    remove();
    std::filesystem::remove(kLock);
}

void MachineSettings::setDumpMessage(std::uint32_t number) const
{
    writeSettingsFile("DumpMsg=" + std::to_string(number) + "\n");
}

void MachineSettings::removeDumpMessage() const
{
    writeSettingsFile("Other=1\n");
}

void MachineSettings::remove() const
{
    std::filesystem::remove(kFile);
}

void writeSettingsFile(const std::string& text)
{
    std::ofstream(kFile, std::ios::binary | std::ios::trunc) << text;
}
