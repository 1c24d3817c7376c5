// The Python surface of the module: one class, its constants and its read-only variables.
//
// Generated with SWIG 4.0.2, and no other version: the texts of the type table and the method
// table are part of what hosts see, and other versions give others.
%module Lumatie

// Every function documents its own signature, with types.
%feature("autodoc", "1");

%{
#include <new>

#include "Lumatie.h"
#include "TetherEvents.h"
%}

// The generator would have the interpreter look for the types of its other modules in files, where
// there are none, and forget every error of that: a Ctrl-C, too.
%begin %{
#define SWIG_LINK_RUNTIME
%}

%insert("runtime") %{
// The types of the modules that were made by the same generator and imported before, or NULL.
void *SWIG_ReturnGlobalTypeList(void *) {
    void *types = NULL;
    PyObject *capsule = NULL;
    PyObject *holder = PyDict_GetItemString(PyImport_GetModuleDict(),
                                            "swig_runtime_data" SWIG_RUNTIME_VERSION);
    if (holder) capsule = PyObject_GetAttrString(holder, "type_pointer_capsule" SWIG_TYPE_TABLE_NAME);
    if (capsule) types = PyCapsule_GetPointer(capsule, SWIGPY_CAPSULE_NAME);
    Py_XDECREF(capsule);
    PyErr_Clear();
    return types;
}
%}

// An object that is no wrapper is asked for its attribute "this", which may be one, and that one for
// its own. The generator's search goes on as long as there are attributes, and those of a mock never
// end: this one gives up.
%insert("runtime") %{
#define MOST_STEPS_TO_A_WRAPPER 32

// The wrapper that the object stands for, as a reference of the caller's. NULL when there is none,
// and with an error when its attributes do not end.
static PyObject *wrapperOf(PyObject *object) {
    int steps = 0;
    Py_INCREF(object);
    while (!SwigPyObject_Check(object)) {
        PyObject *next = PyObject_GetAttr(object, SWIG_This());
        Py_DECREF(object);
        if (!next) {
            PyErr_Clear();
            return NULL;
        }
        object = next;
        if (++steps > MOST_STEPS_TO_A_WRAPPER) {
            Py_DECREF(object);
            PyErr_SetString(PyExc_TypeError, "the attributes 'this' of an argument do not end");
            return NULL;
        }
    }
    return object;
}

static int convertPtr(PyObject *object, void **pointer, swig_type_info *type, int flags) {
    PyObject *wrapper;
    int result;
    // A wrapper that is on its way out has no references that could be counted.
    if (!object || object == Py_None || SwigPyObject_Check(object)) {
        return SWIG_Python_ConvertPtr(object, pointer, type, flags);
    }
    wrapper = wrapperOf(object);
    if (!wrapper) {
        PyErr_Clear();
        return SWIG_ERROR;
    }
    result = SWIG_Python_ConvertPtr(wrapper, pointer, type, flags);
    Py_DECREF(wrapper);
    return result;
}

// The proxy's constructor looks for a wrapper, too, to which it adds another one.
static PyObject *initShadowInstance(PyObject *arguments) {
    PyObject *result;
    if (arguments && PyTuple_Check(arguments) && PyTuple_GET_SIZE(arguments) == 2) {
        PyObject *wrapper = wrapperOf(PyTuple_GET_ITEM(arguments, 0));
        if (!wrapper && PyErr_Occurred()) return NULL;
        Py_XDECREF(wrapper);
    }
    result = SWIG_Python_InitShadowInstance(arguments);
    if (result && PyErr_Occurred()) {
        Py_DECREF(result);
        return NULL;
    }
    return result;
}

#undef SWIG_ConvertPtr
#define SWIG_ConvertPtr(object, pointer, type, flags) convertPtr(object, pointer, type, flags)
#define SWIG_Python_InitShadowInstance initShadowInstance
%}

%init %{
    if (!isMainInterpreter()) {
        PyErr_SetString(PyExc_ImportError, "Lumatie works in the main interpreter only");
        Py_DECREF(m);
        return NULL;
    }
    // The generator's helper for bound methods, which the proxy does not use, is not ours to show.
    PyDict_DelItemString(d, "SWIG_PyInstanceMethod_New");
    // The generator gives its own reference away, so that a module initialised again would share it.
    Py_XINCREF(SWIG_globals());
    // A session that outlives the interpreter would call back into nothing.
    if (!registerAtInterpreterExit(Lumatie::endAllSessions)) {
        return NULL;
    }
%}

// The Windows API's names for C types. They exist here only, as further names of the type table,
// through which the pointers of other modules made by the same generator are recognised.
typedef int BOOL;
typedef int INT;
typedef int int32;
typedef int INT_PTR;
typedef char CHAR;
typedef char TCHAR;
typedef char int8;
typedef double DOUBLE;
typedef float FLOAT;
typedef long LONG_PTR;
typedef long LONG;
typedef long HRESULT;
typedef long LRESULT;
typedef long LPARAM;
typedef long long int64;
typedef long long LONGLONG;
typedef unsigned char uint8;
typedef unsigned char BYTE;
typedef unsigned int uint32;
typedef unsigned int UINT;
typedef unsigned int uint;
typedef unsigned int UINT_PTR;
typedef unsigned int WPARAM;
typedef unsigned long DWORD;
typedef unsigned long ULONG_PTR;
typedef unsigned long ulong;
typedef unsigned long ULONG;
typedef unsigned long long uint64;
typedef unsigned long long ULONGLONG;
typedef unsigned short WORD;
typedef wchar_t WCHAR;

%types(char *, double *, float *, int *, long *, long long *, unsigned char *, unsigned int *,
       unsigned long *, unsigned long long *, unsigned short *, wchar_t *);

// The event codes, and the key words of the event texts.
%include "EventCodes.h"

%immutable;
extern const char *TETHER_GENERAL_DEVICEBUSY;
extern const char *TETHER_GENERAL_NEWFILE;
extern const char *TETHER_GENERAL_WRITEFAIL;
extern const char *TETHER_NIKON_EDITABLE;
extern int TETHER_CANON_COLORTEMP;
extern int TETHER_CANON_AUTO;
extern int TETHER_CANON_BULB;
%mutable;

// Texts are borrowed from an object of the call's own instead of copied once more: converting them
// throws nothing, and a text takes memory once.
%typemap(in, noblock=1) const char * (int res, PyObject *utf8 = 0, char *buf = 0) {
    if (PyUnicode_Check($input)) {
        utf8 = PyUnicode_AsUTF8String($input);
        if (!utf8 && PyErr_ExceptionMatches(PyExc_MemoryError)) SWIG_fail;
        PyErr_Clear();
        buf = utf8 ? PyBytes_AsString(utf8) : 0;
        res = utf8 ? SWIG_OK : SWIG_TypeError;
    } else {
        res = SWIG_AsCharPtrAndSize($input, &buf, NULL, NULL);
    }
    if (!SWIG_IsOK(res)) {
        %argument_fail(res, "$type", $symname, $argnum);
    }
    $1 = buf;
}
%typemap(freearg, noblock=1) const char * {
    Py_XDECREF(utf8$argnum);
}

// The tether object. Init and Uninit release the interpreter lock themselves.
class Lumatie {
public:
    // Events reach the main interpreter only, and its end alone ends the sessions.
    %exception Lumatie() {
        if (!isMainInterpreter()) {
            SWIG_exception_fail(SWIG_RuntimeError, "Lumatie works in the main interpreter only");
        }
        try {
            $action
        } catch (const std::bad_alloc &) {
            PyErr_NoMemory();
            SWIG_fail;
        }
    }
    Lumatie();
    %exception;
    ~Lumatie();

    // No memory is the one thing that an operation throws for.
    %exception {
        try {
            $action
        } catch (const std::bad_alloc &) {
            PyErr_NoMemory();
            SWIG_fail;
        }
    }

    // None converts to a null object. delete takes it; the operations below would crash on it.
    %typemap(check) Lumatie *self {
        if (!$1) {
            SWIG_exception_fail(SWIG_ValueError,
                "invalid null reference in method '$symname', argument $argnum of type '$1_type'");
        }
    }

    BOOL Init(const char *szInfo, const char *szExportFolder, PyObject *callback);
    BOOL UpdateExportFolder(const char *szExportFolder);
    BOOL Uninit();
    BOOL Shoot();
    BOOL SetValue(int nType, int value);
};
