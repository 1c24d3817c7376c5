// Starts the embedded interpreter and runs the tests without its lock, as a host's main loop that
// waits does.
#include <Python.h>

#include <gtest/gtest.h>

#include "System.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::FLAGS_gtest_death_test_style = "threadsafe";

    showDebuggerOutput();

    Py_InitializeEx(0);
    PyThreadState* mainThread = PyEval_SaveThread();
    const int result = RUN_ALL_TESTS();
    PyEval_RestoreThread(mainThread);
    return Py_FinalizeEx() == 0 ? result : 1;
}
