#include "PyErrors.h"

#include <cstdio>
#include <cstdlib>

#include "PyCallback.h"
#include "platform/Platform.h"

namespace {

constexpr unsigned kLongSleepMs = 3'600'000;

// Takes the pending error, as an exception that knows its traceback.
PyObject* takePendingError()
{
#if PY_VERSION_HEX >= 0x030C0000
    return PyErr_GetRaisedException();
#else
    PyObject* type = nullptr;
    PyObject* error = nullptr;
    PyObject* trace = nullptr;
    PyErr_Fetch(&type, &error, &trace);
    PyErr_NormalizeException(&type, &error, &trace);
    if (trace != nullptr) {
        PyException_SetTraceback(error, trace);
    }
    Py_XDECREF(type);
    Py_XDECREF(trace);
    return error;
#endif
}

// The process that a SystemExit of a callable is ending, and whether the calling thread does that.
// The interpreter lock guards it.
unsigned long g_endingProcess = 0;
thread_local bool t_endsProgram = false;

bool isBeingEnded()
{
    return g_endingProcess == platform::processNumber();
}

// Whether the main thread runs the exit functions, or is about to: there is no thread any more that
// it has to wait for before.
bool isMainThreadEnding()
{
    PyObject* name = PyUnicode_FromString("threading");
    PyObject* threading = name != nullptr ? PyImport_GetModule(name) : nullptr;
    Py_XDECREF(name);
    bool isEnding = false;
    if (threading != nullptr) {
        PyObject* names = PyModule_GetDict(threading);
        PyObject* isAnyLeft =
            PyRun_String("any(one.is_alive() and not one.daemon for one in enumerate())",
                         Py_eval_input, names, names);
        isEnding = isAnyLeft == Py_False;
        Py_XDECREF(isAnyLeft);
        Py_DECREF(threading);
    }
    PyErr_Clear();
    return isEnding;
}

// The exit function that comes first while a callable's thread runs them: whoever else begins with
// them stays here until the process has ended.
PyObject* holdBack(PyObject* /*self*/, PyObject* /*unused*/)
{
    if (isBeingEnded() && !t_endsProgram) {
        PyEval_SaveThread();
        sleepForEver();
    }
    Py_RETURN_NONE;
}

PyMethodDef g_holdBackMethod = {"holdBack", holdBack, METH_NOARGS, nullptr};

void holdOthersBack()
{
    if (!registerExitFunction(g_holdBackMethod)) {
        PyErr_Clear();
    }
}

void callAndForget(PyObject* object, const char* method)
{
    PyObject* result = object != nullptr ? PyObject_CallMethod(object, method, nullptr) : nullptr;
    Py_XDECREF(result);
    PyErr_Clear();
}

// The exit status that a SystemExit with this code asks for; a text is printed.
int exitStatus(PyObject* code)
{
    if (code == nullptr || code == Py_None) {
        return 0;
    }
    if (PyLong_Check(code) != 0) {
        return static_cast<int>(PyLong_AsLong(code));
    }
    PyFile_WriteObject(code, PySys_GetObject("stderr"), Py_PRINT_RAW);
    PySys_WriteStderr("\n");
    return 1;
}

// Ends the process as a SystemExit in the main thread does. That is short of taking the interpreter
// down, but for 3.8: from another thread 3.11 and 3.12 may wait for ever, and 3.13 takes the main
// thread away. In a process that was split off 3.8, too, may take this thread for the main one.
[[noreturn]] void exitProcess(PyObject* error)
{
    std::fflush(stdout);
    PyObject* code = PyObject_GetAttrString(error, "code");
    const int status = exitStatus(code);
    PyErr_Clear();
#if PY_VERSION_HEX < 0x03090000
    if (!PyCallback::wasSplitOff()) {
        Py_Exit(status);
    }
#endif
    callAndForget(PyImport_ImportModule("atexit"), "_run_exitfuncs");
    holdOthersBack();
    callAndForget(PySys_GetObject("stdout"), "flush");
    callAndForget(PySys_GetObject("stderr"), "flush");
    std::exit(status);  // NOLINT(concurrency-mt-unsafe): only this thread ends the process
}

// Python's option -i keeps the program after a SystemExit, which is printed then.
bool isInspecting()
{
    PyObject* flags = PySys_GetObject("flags");
    PyObject* inspect = flags != nullptr ? PyObject_GetAttrString(flags, "inspect") : nullptr;
    const bool isSet = inspect != nullptr && PyObject_IsTrue(inspect) == 1;
    Py_XDECREF(inspect);
    PyErr_Clear();
    return isSet;
}

// Ends the process if the error asks for that; false when it is another one. Where the program is
// ending already there is nothing to do.
bool endIfAsked(PyObject* error)
{
    if (PyErr_GivenExceptionMatches(error, PyExc_SystemExit) == 0 || isInspecting()) {
        return false;
    }
    const bool isOthersEnd =
        !PyCallback::wasSplitOff() && (PyCallback::interpreterIsEnding() || isMainThreadEnding());
    if (isBeingEnded() || isOthersEnd) {
        return true;
    }
    g_endingProcess = platform::processNumber();
    t_endsProgram = true;
    holdOthersBack();
    exitProcess(error);
}

// An exception as sys.excepthook gets it.
struct HookArguments {
    explicit HookArguments(PyObject* error)
        : m_error(error), m_trace(PyException_GetTraceback(error))
    {
        if (m_trace == nullptr) {
            Py_INCREF(Py_None);
            m_trace = Py_None;
        }
    }
    HookArguments(const HookArguments&) = delete;
    HookArguments& operator=(const HookArguments&) = delete;
    ~HookArguments() { Py_DECREF(m_trace); }

    void display() const { PyErr_Display(m_type, m_error, m_trace); }

    PyObject* const m_error;
    PyObject* const m_type = reinterpret_cast<PyObject*>(Py_TYPE(m_error));
    PyObject* m_trace;
};

void keepAsLast(const HookArguments& error)
{
#if PY_VERSION_HEX >= 0x030C0000
    PySys_SetObject("last_exc", error.m_error);
#endif
    PySys_SetObject("last_type", error.m_type);
    PySys_SetObject("last_value", error.m_error);
    PySys_SetObject("last_traceback", error.m_trace);
    PyErr_Clear();
}

// False when the host's audit wants the hook to be left out.
bool passesAudit(PyObject* hook, const HookArguments& error)
{
    if (PySys_Audit("sys.excepthook", "OOOO", hook, error.m_type, error.m_error, error.m_trace) ==
        0) {
        return true;
    }
    if (PyErr_ExceptionMatches(PyExc_RuntimeError) != 0) {
        PyErr_Clear();
        return false;
    }
    PyErr_WriteUnraisable(nullptr);
    return true;
}

void callHook(PyObject* hook, const HookArguments& error)
{
    PyObject* result =
        PyObject_CallFunctionObjArgs(hook, error.m_type, error.m_error, error.m_trace, nullptr);
    PyObject* raised = result == nullptr ? takePendingError() : nullptr;
    if (raised != nullptr && !endIfAsked(raised)) {
        std::fflush(stdout);
        PySys_WriteStderr("Error in sys.excepthook:\n");
        HookArguments(raised).display();
        PySys_WriteStderr("\nOriginal exception was:\n");
        error.display();
    }
    Py_XDECREF(raised);
    Py_XDECREF(result);
}

// As PyErr_Print, which would take the interpreter down on this thread when the hook raises a
// SystemExit.
void printError(const HookArguments& error)
{
    keepAsLast(error);
    PyObject* hook = PySys_GetObject("excepthook");
    if (!passesAudit(hook != nullptr ? hook : Py_None, error)) {
        return;
    }
    if (hook == nullptr) {
        PySys_WriteStderr("sys.excepthook is missing\n");
        error.display();
        return;
    }
    Py_INCREF(hook);
    callHook(hook, error);
    Py_DECREF(hook);
}

}  // namespace

[[noreturn]] void sleepForEver()
{
    for (;;) {
        platform::sleepFor(kLongSleepMs);
    }
}

bool registerExitFunction(PyMethodDef& method)
{
    PyObject* exitModule = PyImport_ImportModule("atexit");
    PyObject* callable = PyCFunction_New(&method, nullptr);
    PyObject* result = exitModule != nullptr && callable != nullptr
                           ? PyObject_CallMethod(exitModule, "register", "O", callable)
                           : nullptr;
    const bool registered = result != nullptr;
    Py_XDECREF(result);
    Py_XDECREF(callable);
    Py_XDECREF(exitModule);
    return registered;
}

void printPendingError()
{
    if (PyErr_Occurred() == nullptr) {
        return;
    }
    PyObject* error = takePendingError();
    if (!endIfAsked(error)) {
        printError(HookArguments(error));
    }
    Py_DECREF(error);
}
