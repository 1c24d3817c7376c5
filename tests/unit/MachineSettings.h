// The machine-wide settings of the test build.
#pragma once

#include <cstdint>

// Holds the settings for a test: there are none at first, and they are removed at the end. There is
// one place for them on the machine: tests that run at the same time in other processes wait.
class MachineSettings
{
public:
    MachineSettings();
    MachineSettings(const MachineSettings&) = delete;
    MachineSettings& operator=(const MachineSettings&) = delete;
    ~MachineSettings();

    // Makes the settings, if need be, and sets their number "DumpMsg".
    void setDumpMessage(std::uint32_t number) const;

    // Makes the settings, if need be, but without that number.
    void removeDumpMessage() const;

    // Removes the settings as a whole.
    void remove() const;
};
