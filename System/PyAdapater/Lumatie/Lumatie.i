// The Python surface of the module: one class, its constants and its read-only variables.
//
// Generated with SWIG 4.0.2, and no other version: the texts of the type table and the method
// table are part of what hosts see, and other versions give others.
%module Lumatie

// Every function documents its own signature, with types.
%feature("autodoc", "1");

%{
#include "Lumatie.h"
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
enum TetherVendor {
    VENDOR_NONE = 0,
    VENDOR_NIKON = 1,
    VENDOR_CANON = 2
};

enum TetherType {
    TETHER_GENERAL = 0,
    TETHER_EXPOSUREMODE = 1,
    TETHER_EXPOSUREMODE_LIST = 2,
    TETHER_SHUTTERSPEED = 3,
    TETHER_SHUTTERSPEED_LIST = 4,
    TETHER_APERTURE = 5,
    TETHER_APERTURE_LIST = 6,
    TETHER_ISO = 7,
    TETHER_ISO_LIST = 8,
    TETHER_WB = 9,
    TETHER_WB_LIST = 10,
    TETHER_COLORTEMP = 11,
    TETHER_COLORTEMP_LIST = 12,
    TETHER_IMAGEQUALITY = 13,
    TETHER_IMAGEQUALITY_LIST = 14
};

%immutable;
extern const char *TETHER_GENERAL_DEVICEBUSY;
extern const char *TETHER_GENERAL_NEWFILE;
extern const char *TETHER_GENERAL_WRITEFAIL;
extern const char *TETHER_NIKON_EDITABLE;
extern int TETHER_CANON_COLORTEMP;
extern int TETHER_CANON_AUTO;
extern int TETHER_CANON_BULB;
%mutable;

// The tether object. Init and Uninit release the interpreter lock themselves.
class Lumatie {
public:
    // Events reach the main interpreter only, and its end alone ends the sessions.
    %exception Lumatie() {
        if (!isMainInterpreter()) {
            SWIG_exception_fail(SWIG_RuntimeError, "Lumatie works in the main interpreter only");
        }
        $action
    }
    Lumatie();
    %exception;
    ~Lumatie();

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
