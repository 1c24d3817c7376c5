// python.exe: the console program of an interpreter that came as a DLL.
#include <Python.h>

int wmain(int argc, wchar_t** argv)
{
    return Py_Main(argc, argv);
}
