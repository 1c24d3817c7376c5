// The one way from the camera threads into Python.
#pragma once

#include <atomic>
#include <cstdint>

// As Python.h declares it; only PyCallback.cpp and the generated wrapper include that header.
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
    // Without a callable, and once the interpreter is ending, the event is dropped. An error
    // that the callable raises, or that a value causes, is printed; the sender never learns of
    // it. Any thread; no lock of ours may be held. The callable may replace or clear itself and
    // may even delete this object: the caller must touch nothing of it after the call.
    void Call(const char* format, ...);

    // The window number, for the host's own use.
    std::int64_t mainWindow() const { return m_nMainWindow; }

    // From now on every event is dropped: the interpreter is about to end. Any thread.
    static void dropAllEvents();

    // Whether events are dropped because the interpreter is ending. Any thread.
    static bool interpreterIsEnding();

private:
    std::atomic<PyObject*> m_pCallback{nullptr};
    std::int64_t m_nMainWindow = 0;
};

// Gives up the interpreter lock for a scope if, and only if, the calling thread holds it.
class PyThreadAllow
{
public:
    PyThreadAllow();
    PyThreadAllow(const PyThreadAllow&) = delete;
    PyThreadAllow& operator=(const PyThreadAllow&) = delete;

    // Takes the lock back, when it was given up. An interpreter that has ended meanwhile ends the
    // thread instead, by unwinding it: hence no noexcept.
    ~PyThreadAllow() noexcept(false);

private:
    struct _ts* m_state = nullptr;  // the interpreter's thread state; null: nothing was given up
};

// Whether the calling thread runs in the process's main interpreter. Interpreter lock held.
bool isMainInterpreter();

// Registers `function` with the interpreter to run when the program ends, before anything of
// Python is taken down. Interpreter lock held. Returns false, with a Python error set, on
// failure.
bool registerAtInterpreterExit(void (*function)());
