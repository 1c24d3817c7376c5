// One event from a worker thread into Python, beside the same calls of the interpreter's interface
// written by hand.
#include <Python.h>

#include <benchmark/benchmark.h>

#include <chrono>
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

constexpr int kCallsOfATurn = 20;

template <typename Call>
double secondsOf(Call call)
{
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < kCallsOfATurn; ++i) {
        call();
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
    return taken.count() / kCallsOfATurn;
}

// The module's way and the one by hand take turns, on a thread that the interpreter does not know,
// as the module's workers are. The time is the module's, the counter "floor" the other's, in
// seconds for one call.
template <typename... Values>
void compare(benchmark::State& state, const char* format, Values... values)
{
    PyObject* function = callable();
    PyGILState_STATE lock = PyGILState_Ensure();
    PyCallback callback;
    callback.SetCallback(function);
    PyGILState_Release(lock);
    const auto byModule = [&] { callback.Call(format, values...); };
    const auto byHand = [&] {
        const PyGILState_STATE held = PyGILState_Ensure();
        PyObject* arguments = Py_BuildValue(format, values...);
        PyObject* result = PyObject_CallObject(function, arguments);
        Py_XDECREF(arguments);
        Py_XDECREF(result);
        PyGILState_Release(held);
    };
    double floor = 0;
    bool moduleFirst = true;
    std::thread worker([&] {
        secondsOf(byModule);
        secondsOf(byHand);
        for (auto unused : state) {
            static_cast<void>(unused);
            const double before = moduleFirst ? 0 : secondsOf(byHand);
            state.SetIterationTime(secondsOf(byModule));
            floor += moduleFirst ? secondsOf(byHand) : before;
            moduleFirst = !moduleFirst;
        }
    });
    worker.join();
    state.counters["floor"] = benchmark::Counter(floor, benchmark::Counter::kAvgIterations);
    lock = PyGILState_Ensure();
    callback.SetCallback(nullptr);
    PyGILState_Release(lock);
}

void callWithText(benchmark::State& state)
{
    compare(state, "is", kCode, kText);
}
void callWithNumber(benchmark::State& state)
{
    compare(state, "ii", kCode, kValue);
}
void callWithBoth(benchmark::State& state)
{
    compare(state, "iis", kCode, kValue, "1/125");
}

}  // namespace

BENCHMARK(callWithText)->Name("call_is/both")->UseManualTime()->Iterations(4);
BENCHMARK(callWithNumber)->Name("call_ii/both")->UseManualTime()->Iterations(4);
BENCHMARK(callWithBoth)->Name("call_iis/both")->UseManualTime()->Iterations(4);
