// The file that holds the machine-wide settings on POSIX.
#pragma once

#include <string>

// Replaces the file's content. A test that writes it holds MachineSettings.
void writeSettingsFile(const std::string& text);
