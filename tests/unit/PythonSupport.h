// What the tests that reach into Python share: the interpreter lock for a scope, owned references,
// callables made of C++ functions, and one that writes down how it was called.
//
// Includes Python.h, so it comes first.
#pragma once

#include <Python.h>

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Holds the interpreter lock while it lives; any thread.
class InterpreterLock
{
public:
    InterpreterLock() : m_state(PyGILState_Ensure()) {}
    InterpreterLock(const InterpreterLock&) = delete;
    InterpreterLock& operator=(const InterpreterLock&) = delete;
    ~InterpreterLock() { PyGILState_Release(m_state); }

private:
    PyGILState_STATE m_state;
};

// Runs statements in __main__; returns false, with the error printed, when they raise. Interpreter
// lock held.
inline bool runPython(const std::string& statements)
{
    return PyRun_SimpleString(statements.c_str()) == 0;
}

// str() of an expression in __main__, "<error>" when it raises. Interpreter lock held.
inline std::string evaluate(const std::string& expression)
{
    PyObject* globals = PyModule_GetDict(PyImport_AddModule("__main__"));
    PyObject* value = PyRun_String(expression.c_str(), Py_eval_input, globals, globals);
    PyObject* text = value != nullptr ? PyObject_Str(value) : nullptr;
    std::string result = "<error>";
    if (text != nullptr) {
        result = PyUnicode_AsUTF8(text);
    } else {
        PyErr_Print();
    }
    Py_XDECREF(text);
    Py_XDECREF(value);
    return result;
}

// The object of that name in __main__, borrowed; null when there is none. Interpreter lock held.
inline PyObject* mainObject(const char* name)
{
    return PyDict_GetItemString(PyModule_GetDict(PyImport_AddModule("__main__")), name);
}

// repr() of an object. Interpreter lock held.
inline std::string represent(PyObject* object)
{
    PyObject* text = PyObject_Repr(object);
    std::string result = PyUnicode_AsUTF8(text);
    Py_DECREF(text);
    return result;
}

// A Python callable that calls `function` with its argument tuple, lock held, and returns None, or
// raises the error that the function has set. A new reference; the function is destroyed with the
// callable. Interpreter lock held.
inline PyObject* makeCallable(std::function<void(PyObject*)> function)
{
    using Function = std::function<void(PyObject*)>;
    static PyMethodDef method = {
        "function",
        [](PyObject* self, PyObject* arguments) -> PyObject* {
            (*static_cast<Function*>(PyCapsule_GetPointer(self, nullptr)))(arguments);
            if (PyErr_Occurred() != nullptr) {
                return nullptr;
            }
            Py_RETURN_NONE;
        },
        METH_VARARGS, nullptr};
    PyObject* owner =
        PyCapsule_New(new Function(std::move(function)), nullptr, [](PyObject* capsule) {
            delete static_cast<Function*>(PyCapsule_GetPointer(capsule, nullptr));
        });
    PyObject* callable = PyCFunction_New(&method, owner);
    Py_DECREF(owner);
    return callable;
}

// A callable that writes down its arguments, e.g. "(3, 12, 'Bulb')".
class RecordingCallable
{
public:
    RecordingCallable()
    {
        const InterpreterLock lock;
        m_callable = makeCallable([this](PyObject* arguments) {
            const std::string text = represent(arguments);
            const std::lock_guard<std::mutex> guard(m_lock);
            m_calls.push_back(text);
        });
    }
    RecordingCallable(const RecordingCallable&) = delete;
    RecordingCallable& operator=(const RecordingCallable&) = delete;
    ~RecordingCallable()
    {
        const InterpreterLock lock;
        Py_DECREF(m_callable);
    }

    // Borrowed.
    PyObject* object() const { return m_callable; }

    std::vector<std::string> calls() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_calls;
    }

    bool wasCalledWith(const std::string& arguments) const
    {
        for (const std::string& call : calls()) {
            if (call == arguments) {
                return true;
            }
        }
        return false;
    }

private:
    PyObject* m_callable = nullptr;
    mutable std::mutex m_lock;
    std::vector<std::string> m_calls;
};
