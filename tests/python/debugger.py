"""A debugger for Windows, as small as it can be: it hears what a process tells its debugger."""

import concurrent.futures
import ctypes
import time
from ctypes import wintypes

DEBUG_ONLY_THIS_PROCESS = 2  # flag of the process's creation

EXCEPTION, PROCESS_CREATED, PROCESS_ENDED, LIBRARY_LOADED, TEXT = 1, 3, 5, 6, 8
CONTINUE, EXCEPTION_NOT_HANDLED = 0x00010002, 0x80010001
BREAKPOINT = 0x80000003


class _Text(ctypes.Structure):
    _fields_ = [
        ("address", ctypes.c_void_p),
        ("is_wide", wintypes.WORD),
        ("size", wintypes.WORD),
    ]


class _Details(ctypes.Union):
    _fields_ = [
        ("code", wintypes.DWORD),  # of an exception
        ("file", wintypes.HANDLE),  # of a process or a library
        ("text", _Text),
        ("most", ctypes.c_byte * 160),
    ]


class _Event(ctypes.Structure):
    _fields_ = [
        ("kind", wintypes.DWORD),
        ("process", wintypes.DWORD),
        ("thread", wintypes.DWORD),
        ("details", _Details),
    ]


def listen(process, deadline):
    """The bytes that a process wrote, and the lines that it told its debugger.

    The calling thread has started the process, a subprocess.Popen with pipes, with the flag
    DEBUG_ONLY_THIS_PROCESS. One that outlives the deadline, in seconds, is killed: a failure.
    """
    kernel = ctypes.WinDLL("kernel32", use_last_error=True)
    end = time.monotonic() + deadline
    event, told = _Event(), []
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        written = pool.submit(process.communicate)
        while event.kind != PROCESS_ENDED:
            if time.monotonic() > end:
                process.kill()
                raise AssertionError("not within {:g} s; it told: {}".format(deadline, told))
            if not kernel.WaitForDebugEvent(ctypes.byref(event), 100):
                continue
            answer = CONTINUE
            if event.kind == TEXT:
                told.append(_read(kernel, process, event.details.text))
            elif event.kind in (PROCESS_CREATED, LIBRARY_LOADED):
                kernel.CloseHandle(wintypes.HANDLE(event.details.file))
            elif event.kind == EXCEPTION and event.details.code != BREAKPOINT:
                answer = EXCEPTION_NOT_HANDLED
            kernel.ContinueDebugEvent(event.process, event.thread, wintypes.DWORD(answer))
        return written.result(), "".join(told).splitlines()


def _read(kernel, process, text):
    buffer = ctypes.create_string_buffer(text.size)
    handle = wintypes.HANDLE(int(process._handle))
    if not kernel.ReadProcessMemory(
        handle, ctypes.c_void_p(text.address), buffer, ctypes.c_size_t(text.size), None
    ):
        raise ctypes.WinError(ctypes.get_last_error())
    return buffer.value.decode("utf-8", "surrogateescape")
