"""The debug log's switch and its lines, on both systems.

The switch is a machine-wide setting: on Windows a value in the registry, elsewhere a line of a
file. The build of the module in TEST_PYTHON_DIR has a key or a file of its own, so that the
product's stays as it is. Lines go to the debugger on Windows, elsewhere to standard error.
"""

import os

from support import (
    TEST_CONFIG_DIR,
    TEST_PYTHON_DIR,
    HostRun,
    decode_output,
    run_host,
    start_host,
)
from this_process import ON_WINDOWS

if ON_WINDOWS:
    import ctypes
    import winreg

    import debugger

SETTINGS = TEST_CONFIG_DIR / "Imagrelle.conf"
KEY = r"SOFTWARE\Zentrovik\Imagrelle tests"  # of HKEY_LOCAL_MACHINE


def write_settings(text):
    """Writes the settings file."""
    os.makedirs(str(TEST_CONFIG_DIR), exist_ok=True)
    SETTINGS.write_text(text)


def write_value(value, kind, name="DumpMsg"):
    """Writes a value of a type of winreg's to the registry; needs an administrator's rights."""
    with winreg.CreateKeyEx(winreg.HKEY_LOCAL_MACHINE, KEY, 0, winreg.KEY_SET_VALUE) as key:
        winreg.SetValueEx(key, name, 0, kind, value)


def switch(number):
    """Sets the switch."""
    if ON_WINDOWS:
        write_value(number, winreg.REG_DWORD)
    else:
        write_settings("DumpMsg={}\n".format(number))


def remove_settings():
    """Takes away the key or the file."""
    try:
        if ON_WINDOWS:
            winreg.DeleteKey(winreg.HKEY_LOCAL_MACHINE, KEY)
        else:
            SETTINGS.unlink()
    except FileNotFoundError:
        pass


def write_line(text):
    """Writes a line where the module writes its own."""
    line = text.encode() + b"\n"
    if ON_WINDOWS:
        ctypes.WinDLL("kernel32").OutputDebugStringA(line)
    else:
        os.write(2, line)


def run_logged_host(code, arguments, deadline=60.0):
    """Runs a host with that build of the module; returns its run and the log's lines."""
    how = {"python_dir": TEST_PYTHON_DIR, "arguments": arguments}
    if not ON_WINDOWS:
        run = run_host(code, deadline, **how)
        return run, run.stderr.splitlines()
    process = start_host(code, creationflags=debugger.DEBUG_ONLY_THIS_PROCESS, **how)
    written, lines = debugger.listen(process, deadline)
    return HostRun(process.returncode, *map(decode_output, written)), lines
