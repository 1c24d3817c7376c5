// What Python.h has to know of CPython 3.8 for Windows x64. Stands beside a copy of the headers
// that came with an interpreter for another system, in place of that system's file.
#ifndef Py_CONFIG_H
#define Py_CONFIG_H

#include <io.h>

#define MS_WIN32
#define MS_WIN64
#define MS_WINDOWS
#define NT_THREADS
#define WITH_THREAD
#define PLATFORM "win32"

#define HAVE_DECLSPEC_DLL
#ifndef Py_NO_ENABLE_SHARED
#define Py_ENABLE_SHARED 1
#endif

#define SIZEOF_SHORT 2
#define SIZEOF_INT 4
#define SIZEOF_LONG 4
#define SIZEOF_LONG_LONG 8
#define SIZEOF_VOID_P 8
#define SIZEOF_SIZE_T 8
#define SIZEOF_TIME_T 8
#define SIZEOF_OFF_T 4
#define SIZEOF_FPOS_T 8
#define SIZEOF_HKEY 8
#define SIZEOF_DOUBLE 8
#define SIZEOF_FLOAT 4
#define SIZEOF_WCHAR_T 2
#define SIZEOF_PID_T 8
#define ALIGNOF_SIZE_T 8
#define HAVE_LARGEFILE_SUPPORT

#define STDC_HEADERS 1
#define HAVE_STDDEF_H 1
#define HAVE_STDINT_H 1
#define HAVE_INTTYPES_H 1
#define HAVE_SYS_TYPES_H 1
#define HAVE_SYS_STAT_H 1
#define HAVE_ERRNO_H 1
#define HAVE_FCNTL_H 1
#define HAVE_IO_H 1
#define HAVE_PROCESS_H 1
#define HAVE_SIGNAL_H 1
#define HAVE_WCHAR_H 1
#define HAVE_LONG_LONG 1
#define HAVE_UINTPTR_T 1
#define HAVE_SSIZE_T 1
#define HAVE_PROTOTYPES 1
#define HAVE_STRFTIME 1
#define HAVE_SNPRINTF 1
#define WITH_PYMALLOC 1
#define WITH_DOC_STRINGS 1

#endif
