"""What the operating system says about this process: threads, handles, memory, libraries.

Needs nothing of the build under test.
"""

import ctypes
import os

ON_WINDOWS = os.name == "nt"


def native_threads():
    """How many threads the process has, those included that Python does not know."""
    return _count_threads() if ON_WINDOWS else len(os.listdir("/proc/self/task"))


def open_handles():
    """How many files and, on Windows, other objects of the system the process has open."""
    if not ON_WINDOWS:
        return len(os.listdir("/proc/self/fd"))
    return _count_handles()


def resident_bytes():
    """The process's resident memory."""
    if not ON_WINDOWS:
        with open("/proc/self/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    counters = _MemoryCounters(size=ctypes.sizeof(_MemoryCounters))
    _call("K32GetProcessMemoryInfo", _this_process(), ctypes.byref(counters), counters.size)
    return counters.resident


def has_library(path):
    """Whether the library in this file is loaded."""
    if not ON_WINDOWS:
        with open("/proc/self/maps", encoding="utf-8") as file:
            return path in file.read()
    return bool(_kernel32().GetModuleHandleW(ctypes.c_wchar_p(path)))


class _HandleEntry(ctypes.Structure):
    _fields_ = [
        ("thing", ctypes.c_void_p),
        ("process", ctypes.c_size_t),
        ("handle", ctypes.c_size_t),
        ("more", ctypes.c_uint32 * 4),
    ]


class _MemoryCounters(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("page_faults", ctypes.c_uint32),
        ("most_resident", ctypes.c_size_t),
        ("resident", ctypes.c_size_t),
        ("more", ctypes.c_size_t * 6),
    ]


class _ThreadEntry(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("usage", ctypes.c_uint32),
        ("thread", ctypes.c_uint32),
        ("process", ctypes.c_uint32),
        ("priorities", ctypes.c_int32 * 2),
        ("flags", ctypes.c_uint32),
    ]


def _kernel32():
    # Not ctypes.windll, whose functions are shared with everybody.
    library = ctypes.WinDLL("kernel32", use_last_error=True)
    library.GetModuleHandleW.restype = ctypes.c_void_p
    library.CreateToolhelp32Snapshot.restype = ctypes.c_void_p
    return library


def _this_process():
    return ctypes.c_void_p(-1)  # stands for the calling process


def _call(name, *arguments):
    if not getattr(_kernel32(), name)(*arguments):
        raise ctypes.WinError(ctypes.get_last_error())


def _count_threads():
    library = _kernel32()
    snapshot = ctypes.c_void_p(library.CreateToolhelp32Snapshot(4, 0))  # threads, of all processes
    entry = _ThreadEntry(size=ctypes.sizeof(_ThreadEntry))
    count, more = 0, library.Thread32First(snapshot, ctypes.byref(entry))
    while more:
        count += entry.process == os.getpid()
        more = library.Thread32Next(snapshot, ctypes.byref(entry))
    library.CloseHandle(snapshot)
    return count


def _count_handles():
    # Not GetProcessHandleCount, for which Wine has no answer.
    query = ctypes.WinDLL("ntdll").NtQuerySystemInformation
    every_handle, head = 64, ctypes.sizeof(ctypes.c_size_t) * 2
    needed = ctypes.c_uint32(1 << 16)
    while True:
        # There may be more the next time.
        buffer = ctypes.create_string_buffer(needed.value * 2)
        status = query(every_handle, buffer, len(buffer), ctypes.byref(needed))
        if status >= 0:
            break
        if status != -0x3FFFFFFC:  # too small
            raise OSError("the handles are not told: {:#x}".format(status & 0xFFFFFFFF))
    count = ctypes.c_size_t.from_buffer(buffer).value
    entries = (_HandleEntry * count).from_buffer(buffer, head)
    return sum(entry.process == os.getpid() for entry in entries)
