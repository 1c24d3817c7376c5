// The registry key that holds the machine-wide settings on Windows.
#pragma once

#include <string>

// Sets the value "DumpMsg", of a type as the registry counts them. A test that does so holds
// MachineSettings.
void setRegistryValue(unsigned long type, const std::string& bytes);
