// Diagnostic lines for the debugger, written only when the machine-wide switch asks for them.
#pragma once

// Writes one line: the prefix "[Lumatie]", the text formatted as printf would, cut to its first
// 1,023 characters, and a newline. When the switch is off nothing is even formatted.
// Thread-safe; never fails.
void DebugLog(const char* format, ...);

// Reads the machine-wide switch and prepares the prefix; called for every new tether object.
// Without settings on this machine the switch and the prefix keep what they held (at the start:
// off and empty). Thread-safe.
void readDebugLogSwitch();
