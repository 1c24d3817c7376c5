// What stands for three functions of the operating system in the fuzz targets, and for the
// interpreter: texts that do not fit end the input instead of the process, nobody waits, the debug
// log is looked at, and no interpreter is ending.
#pragma once

namespace fuzz {

// Thrown in place of the end of the process, from platform::rejectText.
struct Rejected {};

// Has every line of the debug log formatted from now on, and checked for its form.
void switchDebugLogOn();

}  // namespace fuzz
