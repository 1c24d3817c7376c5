#include <Python.h>

#include "PyCallback.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "platform/Platform.h"

namespace {

constexpr const char* kMainWindowVariable = "quil main window";
constexpr std::size_t kMainWindowSize = 64;

std::atomic<bool> g_dropAllEvents{false};

// As atoi of the Windows C runtime, which stops at the ends of the 32-bit range.
std::int32_t toInt32(const char* text)
{
    const long long value = std::strtoll(text, nullptr, 10);
    return static_cast<std::int32_t>(std::clamp<long long>(
        value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

// Builds the argument tuple; null with an error set when a value does not fit the format, null
// without one when there is no format.
PyObject* buildArguments(const char* format, va_list values)
{
    if (format == nullptr || *format == '\0') {
        return nullptr;
    }
    if (format[1] == '\0') {
        // A single value would come alone; the parentheses make it a tuple of one.
        return Py_VaBuildValue((std::string("(") + format + ")").c_str(), values);
    }
    return Py_VaBuildValue(format, values);
}

#if PY_VERSION_HEX >= 0x03090000

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
    return error;
#endif
}

// Ends the process as a SystemExit in the main thread does, short of taking the interpreter down:
// from another thread 3.11 and 3.12 may wait for ever, and 3.13 takes the main thread away.
[[noreturn]] void exitProcess()
{
    PyObject* error = takePendingError();
    PyObject* code = PyObject_GetAttrString(error, "code");
    const int status = exitStatus(code);
    PyErr_Clear();
    callAndForget(PyImport_ImportModule("atexit"), "_run_exitfuncs");
    callAndForget(PySys_GetObject("stdout"), "flush");
    callAndForget(PySys_GetObject("stderr"), "flush");
    std::exit(status);  // NOLINT(concurrency-mt-unsafe): only this thread ends the process
}

#endif

void printPendingError()
{
    if (PyErr_Occurred() == nullptr) {
        return;
    }
#if PY_VERSION_HEX >= 0x03090000
    if (PyErr_ExceptionMatches(PyExc_SystemExit) != 0) {
        exitProcess();
    }
#endif
    PyErr_Print();
}

void (*g_exitFunction)() = nullptr;

PyObject* runExitFunction(PyObject* /*self*/, PyObject* /*unused*/)
{
    g_exitFunction();
    Py_RETURN_NONE;
}

PyMethodDef g_exitMethod = {"endSessions", runExitFunction, METH_NOARGS, nullptr};

}  // namespace

PyCallback::PyCallback()
{
    char text[kMainWindowSize];
    if (platform::environmentVariable(kMainWindowVariable, text, sizeof text)) {
        m_nMainWindow = toInt32(text);
    }
}

PyCallback::~PyCallback()
{
    SetCallback(nullptr);
}

void PyCallback::SetCallback(PyObject* callback)
{
    PyObject* stored = callback == Py_None ? nullptr : callback;
    Py_XINCREF(stored);
    // Dropping the old callable may run the host's code, which may come back here and store another
    // one. That gives way to a new callable, but not to none.
    PyObject* old = m_pCallback.exchange(nullptr);
    Py_XDECREF(old);
    if (stored != nullptr) {
        old = m_pCallback.exchange(stored);
        Py_XDECREF(old);
    }
}

void PyCallback::Call(const char* format, ...)
{
    if (m_pCallback == nullptr || interpreterIsEnding()) {
        return;
    }
    const PyGILState_STATE state = PyGILState_Ensure();

    // A reference of our own: the callable may be replaced while it runs, or since the first look.
    PyObject* callback = m_pCallback;
    if (callback != nullptr) {
        Py_INCREF(callback);
        va_list values;
        va_start(values, format);
        PyObject* arguments = buildArguments(format, values);
        va_end(values);
        printPendingError();

        PyObject* result = PyObject_CallObject(callback, arguments);
        Py_XDECREF(arguments);
        printPendingError();
        Py_XDECREF(result);
        Py_DECREF(callback);
    }
    PyGILState_Release(state);
}

void PyCallback::dropAllEvents()
{
    g_dropAllEvents = true;
}

bool PyCallback::interpreterIsEnding()
{
#if PY_VERSION_HEX >= 0x030D0000
    return g_dropAllEvents || Py_IsInitialized() == 0 || Py_IsFinalizing() != 0;
#else
    return g_dropAllEvents || Py_IsInitialized() == 0 || _Py_IsFinalizing() != 0;
#endif
}

PyThreadAllow::PyThreadAllow()
{
    const bool holdsLock = Py_IsInitialized() != 0 && PyGILState_GetThisThreadState() != nullptr &&
                           PyGILState_Check() != 0;
    if (holdsLock) {
        m_state = PyEval_SaveThread();
    }
}

PyThreadAllow::~PyThreadAllow() noexcept(false)
{
    if (m_state != nullptr) {
        PyEval_RestoreThread(m_state);
    }
}

bool isMainInterpreter()
{
    return PyThreadState_Get()->interp == PyInterpreterState_Main();
}

bool registerAtInterpreterExit(void (*function)())
{
    g_exitFunction = function;
    g_dropAllEvents = false;

    PyObject* exitModule = PyImport_ImportModule("atexit");
    PyObject* callable = PyCFunction_New(&g_exitMethod, nullptr);
    PyObject* result = exitModule != nullptr && callable != nullptr
                           ? PyObject_CallMethod(exitModule, "register", "O", callable)
                           : nullptr;
    const bool registered = result != nullptr;
    Py_XDECREF(result);
    Py_XDECREF(callable);
    Py_XDECREF(exitModule);
    return registered;
}
