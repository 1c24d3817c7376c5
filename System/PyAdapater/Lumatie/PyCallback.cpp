#include <Python.h>

#include "PyCallback.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "DebugLog.h"
#include "PyErrors.h"
#include "platform/Platform.h"

namespace {

constexpr const char* kMainWindowVariable = "quil main window";
constexpr std::size_t kMainWindowSize = 64;

std::atomic<bool> g_dropAllEvents{false};

// The callables that the calling thread is inside.
thread_local unsigned t_calls = 0;

// The process that has called the outermost of them.
thread_local unsigned long t_process = 0;

// As atoi of the Windows C runtime, which stops at the ends of the 32-bit range.
std::int32_t toInt32(const char* text)
{
    const long long value = std::strtoll(text, nullptr, 10);
    return static_cast<std::int32_t>(std::clamp<long long>(
        value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

// Runs what may end its thread by force, because the interpreter is being taken down. On POSIX that
// unwinds the thread, and a destructor on its way may not; there the thread sleeps until the
// process has ended.
template <typename Function>
auto keepingThread(const Function& function) -> decltype(function())
{
    try {
        return function();
    } catch (...) {
        sleepForEver();
    }
}

// The interpreter lock for the time of a call. A thread that Python does not know gets a state of
// its own meanwhile. PyGILState_Ensure would do the same, but end the process when there is no
// memory for the state.
class CallLock
{
public:
    CallLock() : m_isKnown(PyGILState_GetThisThreadState() != nullptr)
    {
        if (m_isKnown) {
            m_before = keepingThread([] { return PyGILState_Ensure(); });
            return;
        }
        PyInterpreterState* interpreter = PyInterpreterState_Main();
        m_own = interpreter != nullptr ? PyThreadState_New(interpreter) : nullptr;
        if (m_own != nullptr) {
            keepingThread([this] { PyEval_RestoreThread(m_own); });
        }
    }
    CallLock(const CallLock&) = delete;
    CallLock& operator=(const CallLock&) = delete;

    ~CallLock()
    {
        if (m_isKnown) {
            keepingThread([this] { PyGILState_Release(m_before); });
        } else if (m_own != nullptr) {
            keepingThread([this] {
                PyThreadState_Clear(m_own);
                PyThreadState_DeleteCurrent();
            });
        }
    }

    bool isHeld() const { return m_isKnown || m_own != nullptr; }

private:
    const bool m_isKnown;
    PyGILState_STATE m_before = PyGILState_LOCKED;
    PyThreadState* m_own = nullptr;
};

// Counts a call until nothing of it can run code of the host any more: that may be the callable's
// own end, or, with the lock's, the end of what the callable kept in a threading.local.
//
// A process that was split off meanwhile ends then, as one that Python has split off on a thread:
// it has come to the end of its only thread, so its status is 0, and no exit function runs. A
// thread of the host's goes on.
class CallCount
{
public:
    explicit CallCount(std::atomic<unsigned>& calls) : m_calls(calls) {}
    CallCount(const CallCount&) = delete;
    CallCount& operator=(const CallCount&) = delete;

    ~CallCount()
    {
        if (!m_begun) {
            return;
        }
        const bool ends = !m_isPythons && PyCallback::wasSplitOff();
        --t_calls;
        --m_calls;
        if (ends) {
            std::exit(0);  // NOLINT(concurrency-mt-unsafe): see above
        }
    }

    void begin()
    {
        if (t_calls == 0) {
            t_process = platform::processNumber();
        }
        ++m_calls;
        ++t_calls;
        m_begun = true;
    }

private:
    std::atomic<unsigned>& m_calls;
    const bool m_isPythons = PyGILState_GetThisThreadState() != nullptr;
    bool m_begun = false;
};

// Builds the argument tuple; null with an error set when a value does not fit the format, null
// without one when there is no format.
PyObject* buildArguments(const char* format, va_list values)
{
    if (format == nullptr || *format == '\0') {
        return nullptr;
    }
    if (format[1] == '\0') {
        // A single value would come alone; the parentheses make it a tuple of one.
        const char tuple[] = {'(', format[0], ')', '\0'};
        return Py_VaBuildValue(tuple, values);
    }
    return Py_VaBuildValue(format, values);
}

// The pending Python error, taken out of the way and put back.
class PendingError
{
public:
#if PY_VERSION_HEX >= 0x030C0000
    PendingError() : m_error(PyErr_GetRaisedException()) {}
    void restore()
    {
        PyErr_SetRaisedException(m_error);
    }

private:
    PyObject* m_error;
#else
    PendingError()
    {
        PyErr_Fetch(&m_type, &m_error, &m_trace);
    }
    void restore()
    {
        PyErr_Restore(m_type, m_error, m_trace);
    }

private:
    PyObject* m_type = nullptr;
    PyObject* m_error = nullptr;
    PyObject* m_trace = nullptr;
#endif
};

// Calls the callable once. What went wrong with the values is told after the call.
void callWith(PyObject* callback, const char* format, va_list values)
{
    PyObject* arguments = buildArguments(format, values);
    PendingError building;
    PyObject* result = PyObject_CallObject(callback, arguments);
    Py_XDECREF(arguments);
    PendingError raised;
    building.restore();
    printPendingError();
    raised.restore();
    printPendingError();
    Py_XDECREF(result);
}

void (*g_exitFunction)() = nullptr;

PyObject* runExitFunction(PyObject* /*self*/, PyObject* /*unused*/)
{
    try {
        g_exitFunction();
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
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
    keepingThread([&] { Py_XDECREF(old); });
    if (stored != nullptr) {
        old = m_pCallback.exchange(stored);
        keepingThread([&] { Py_XDECREF(old); });
    }
}

void PyCallback::Call(const char* format, ...)
{
    if (m_pCallback == nullptr || interpreterIsEnding()) {
        return;
    }
    CallCount count(m_calls);
    const CallLock lock;
    if (!lock.isHeld()) {
        DebugLog("there is not enough memory: an event is given up");
        return;
    }
    count.begin();

    // A reference of our own: the callable may be replaced while it runs, or since the first look.
    PyObject* callback = m_pCallback;
    if (callback != nullptr) {
        Py_INCREF(callback);
        va_list values;
        va_start(values, format);
        keepingThread([&] { callWith(callback, format, values); });
        va_end(values);
        keepingThread([&] { Py_DECREF(callback); });
    }
}

bool PyCallback::isInsideCall()
{
    return t_calls > 0;
}

bool PyCallback::wasSplitOff()
{
    return t_calls > 0 && t_process != platform::processNumber();
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

PyThreadAllow::~PyThreadAllow()
{
    if (m_state != nullptr) {
        keepingThread([this] { PyEval_RestoreThread(m_state); });
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

    return registerExitFunction(g_exitMethod);
}
