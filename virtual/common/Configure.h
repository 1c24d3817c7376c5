// Settings of a virtual camera: lines of text, from a test or from the file that the environment
// names.
//
// All functions are called with the world's lock held.
#pragma once

#include <string>

#include "common/Maker.h"

namespace virtualcamera {

// Takes a whole settings text. Answers 0, or the number of the first bad line.
int configure(Maker& maker, const std::string& text);

// All settings as text.
std::string describeSettings(const Maker& maker);

// Opens the log file, and reads the text file that the variable `name` of the environment names, if
// they are others than before.
void readEnvironment(Maker& maker, const char* name);

}  // namespace virtualcamera
