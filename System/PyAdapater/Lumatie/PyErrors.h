// What becomes of an error that no callable catches.
#pragma once

#include <Python.h>

// Hands the pending error to the host's sys.excepthook, as PyErr_Print does. A SystemExit, also one
// of the hook's, ends the process instead: the exit functions run, once however many threads exit
// at the same time; where the program is ending already nothing happens. Does nothing without an
// error. Interpreter lock held.
void printPendingError();

// Has the interpreter run the method, without arguments, when the program ends and before
// everything that was registered earlier. Returns false with a Python error set. Interpreter lock
// held.
bool registerExitFunction(PyMethodDef& method);

// For a thread that must not go on, and must not be unwound either.
[[noreturn]] void sleepForEver();
