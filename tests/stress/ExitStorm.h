// Programs that end while a storm goes on.
#pragma once

#include <string>

// Starts a storm, and ends the program in the middle of it, at a moment and in a way that follow
// from `seed`: the interpreter is finalised, or a callable raises SystemExit. Then no session may
// be left. Returns the exit status, if it returns. The interpreter is initialised; its lock is
// held.
int exitInStorm(const std::string& maker, unsigned seed);
