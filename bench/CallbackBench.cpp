// One event from a worker thread into Python, beside the same calls of the interpreter's interface
// written by hand.
#include <Python.h>

#include <benchmark/benchmark.h>

#include <string>
#include <thread>

#include "PyCallback.h"

namespace {

constexpr int kCode = 3;
constexpr int kValue = 0x6B;
constexpr const char* kText =
    "{'GENERAL_NEWFILE':r'/home/me/pictures/Canon_1666666666_1804289383.jpg'}";

[[maybe_unused]] const bool g_versionIsNoted = [] {
    benchmark::AddCustomContext("embedded_python", PY_VERSION);
    return true;
}();

// A host's callable. The interpreter is started by the first who asks, and never ended; its lock is
// free when nobody works in it, as in a host that waits.
PyObject* callable()
{
    static PyObject* const made = [] {
        Py_InitializeEx(0);
        PyRun_SimpleString("def callback(*arguments):\n    pass\n");
        PyObject* names = PyModule_GetDict(PyImport_AddModule("__main__"));
        PyObject* found = PyDict_GetItemString(names, "callback");
        PyEval_SaveThread();
        return found;
    }();
    return made;
}

// A thread that the interpreter does not know, as the module's workers are.
template <typename Turn>
void runOnWorker(benchmark::State& state, Turn turn)
{
    std::thread worker([&] {
        for (auto unused : state) {
            static_cast<void>(unused);
            turn();
        }
    });
    worker.join();
}

template <typename... Values>
void byModule(benchmark::State& state, const char* format, Values... values)
{
    PyObject* function = callable();
    PyGILState_STATE lock = PyGILState_Ensure();
    {
        PyCallback callback;
        callback.SetCallback(function);
        PyGILState_Release(lock);
        runOnWorker(state, [&] { callback.Call(format, values...); });
        lock = PyGILState_Ensure();
    }
    PyGILState_Release(lock);
}

template <typename... Values>
void byHand(benchmark::State& state, const char* format, Values... values)
{
    PyObject* function = callable();
    runOnWorker(state, [&] {
        const PyGILState_STATE lock = PyGILState_Ensure();
        PyObject* arguments = Py_BuildValue(format, values...);
        PyObject* result = PyObject_CallObject(function, arguments);
        Py_XDECREF(arguments);
        Py_XDECREF(result);
        PyGILState_Release(lock);
    });
}

void callWithText(benchmark::State& state)
{
    byModule(state, "is", kCode, kText);
}
void callWithTextByHand(benchmark::State& state)
{
    byHand(state, "is", kCode, kText);
}
void callWithNumber(benchmark::State& state)
{
    byModule(state, "ii", kCode, kValue);
}
void callWithNumberByHand(benchmark::State& state)
{
    byHand(state, "ii", kCode, kValue);
}
void callWithBoth(benchmark::State& state)
{
    byModule(state, "iis", kCode, kValue, "1/125");
}
void callWithBothByHand(benchmark::State& state)
{
    byHand(state, "iis", kCode, kValue, "1/125");
}

}  // namespace

BENCHMARK(callWithText)->Name("call_is/module")->UseRealTime();
BENCHMARK(callWithTextByHand)->Name("call_is/floor")->UseRealTime();
BENCHMARK(callWithNumber)->Name("call_ii/module")->UseRealTime();
BENCHMARK(callWithNumberByHand)->Name("call_ii/floor")->UseRealTime();
BENCHMARK(callWithBoth)->Name("call_iis/module")->UseRealTime();
BENCHMARK(callWithBothByHand)->Name("call_iis/floor")->UseRealTime();
