// The one way from the camera threads into Python.
#pragma once

#include <atomic>
#include <cstdint>

// As Python.h declares it; only the sources of this way and the generated wrapper include that
// header.
using PyObject = struct _object;

// Keeps the host's callable and calls it. The interpreter lock is taken for each call.
class PyCallback
{
public:
    // Reads the host's window number from the environment variable "quil main window".
    PyCallback();
    PyCallback(const PyCallback&) = delete;
    PyCallback& operator=(const PyCallback&) = delete;

    // Drops the callable. Interpreter lock held.
    virtual ~PyCallback();

    // Replaces the callable by `callback`, of which a reference is taken; null and None store
    // none. Any object is accepted. Interpreter lock held.
    void SetCallback(PyObject* callback);

    // Calls the callable with the values that `format` describes in the notation of
    // Py_BuildValue; a format of one character gives one argument, an empty or null one none.
    // Without a callable, without memory for the way into Python, and once the interpreter is
    // ending, the event is dropped. An error that the callable raises, or that a value causes, is
    // printed; the sender never learns of it. Any thread; no lock of ours may be held. The callable
    // may replace or clear itself; the caller keeps this object alive meanwhile.
    //
    // A process that is split off inside the callable, on a thread that is none of Python's, ends
    // when the callable returns there: it has no other thread, and nobody would expect it to go on
    // with this one's work.
    //
    // The error of a value is printed after the call, which is made without arguments then. An
    // interpreter that is taken down while the calling thread is in it keeps the thread for ever.
    void Call(const char* format, ...);

    // Whether the callable is running now, on any thread. Any thread.
    bool isCalling() const { return m_calls > 0; }

    // Whether the calling thread is inside a callable, whosever.
    static bool isInsideCall();

    // Whether the calling thread is inside a callable, and its process was split off in there: the
    // thread is a copy, and what it has further up its stack is another process's.
    static bool wasSplitOff();

    // The window number, for the host's own use.
    std::int64_t mainWindow() const { return m_nMainWindow; }

    // From now on every event is dropped: the interpreter is about to end. Any thread.
    static void dropAllEvents();

    // Whether events are dropped because the interpreter is ending. Any thread.
    static bool interpreterIsEnding();

private:
    std::atomic<PyObject*> m_pCallback{nullptr};
    std::atomic<unsigned> m_calls{0};  // under way
    std::int64_t m_nMainWindow = 0;
};

// Gives up the interpreter lock for a scope if, and only if, the calling thread holds it.
class PyThreadAllow
{
public:
    PyThreadAllow();
    PyThreadAllow(const PyThreadAllow&) = delete;
    PyThreadAllow& operator=(const PyThreadAllow&) = delete;

    // Takes the lock back, when it was given up. When the interpreter is taken down meanwhile this
    // never returns: an interpreter ends such a thread by force, and that would unwind destructors.
    ~PyThreadAllow();

private:
    struct _ts* m_state = nullptr;  // the interpreter's thread state; null: nothing was given up
};

// Whether the calling thread runs in the process's main interpreter. Interpreter lock held.
bool isMainInterpreter();

// Registers `function` with the interpreter to run when the program ends, before anything of
// Python is taken down. Interpreter lock held. Returns false, with a Python error set, on
// failure.
bool registerAtInterpreterExit(void (*function)());
