"""Makes the wheels of what build/linux or build/windows holds, in build/wheels.

scikit-build-core packs them, as it does for whoever installs the source distribution; here it gets
the files that the tests run with, so that nothing is compiled a second time. auditwheel finds the
oldest system that a wheel for Linux runs on. The same files make the same bytes.
"""

import argparse
import glob
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
BUILD = REPOSITORY / "build"
STUBS = REPOSITORY / "System" / "PyAdapater" / "Lumatie"

# What the virtual cameras are made of.
VIRTUAL_SOURCES = (
    "CMakeLists.txt",
    "cmake",
    "docs/notices.md",
    "host/lumatie_host/version.py",
    "interfaces",
    "virtual",
)

# The time of every file in a wheel: 2026-01-01.
EPOCH = "1767225600"

# With the tools of this environment. One that compiles is not needed, and not in it.
ALONE = ("--no-isolation", "--skip-dependency-check")

# The system's package whose file `copyright` has the terms of what is linked in.
NOTICES = {
    "linux": {"lumatie": [], "lumatie-virtual": ["libstb-dev"]},
    "windows": {
        "lumatie": ["g++-mingw-w64-x86-64-posix", "mingw-w64-x86-64-dev"],
        "lumatie-virtual": ["g++-mingw-w64-x86-64-posix", "mingw-w64-x86-64-dev", "libstb-dev"],
    },
}


def run(*command, **options):
    """Runs a tool of this environment, which has its own ones first on its path."""
    folder = os.path.dirname(sys.executable)
    path = os.pathsep.join((folder, os.environ["PATH"]))
    environment = dict(os.environ, PATH=path, SOURCE_DATE_EPOCH=EPOCH)
    done = subprocess.run(
        [str(part) for part in command],
        env=environment,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        universal_newlines=True,
        check=False,
        **options,
    )
    if done.returncode:
        sys.exit("%s\nerror: %s failed" % (done.stdout, " ".join(map(str, command))))
    return done.stdout


def tool(name, *arguments):
    return run(sys.executable, "-m", name, *arguments)


def only(folder, pattern):
    """The one file of a pattern that a tool left in a folder."""
    (path,) = folder.glob(pattern)
    return path


def notices(system, project):
    """The terms of others' code in a wheel, as the system's packages have them."""
    files = [pathlib.Path("/usr/share/doc", name, "copyright") for name in NOTICES[system][project]]
    for path in files:
        if not path.is_file():
            sys.exit("error: %s has to be in the wheel, and is not there" % path)
    return files


def sources_of(project, folder):
    """The folder with a project's pyproject.toml on top: the tree, or a copy of a part of it."""
    if project == "lumatie":
        return REPOSITORY
    top = folder / "sources"
    for name in VIRTUAL_SOURCES:
        target = top / name
        target.parent.mkdir(parents=True, exist_ok=True)
        if (REPOSITORY / name).is_dir():
            unwanted = shutil.ignore_patterns("__pycache__")
            shutil.copytree(str(REPOSITORY / name), str(target), ignore=unwanted)
        else:
            shutil.copy(str(REPOSITORY / name), str(target))
    shutil.move(str(top / "virtual" / "pyproject.toml"), str(top))
    return top


def packed(project, folder, definitions):
    """A wheel of a project in a folder, as scikit-build-core packs it."""
    settings = ["--config-setting=cmake.build-type=Release"]
    settings.append("--config-setting=cmake.source-dir=%s" % (REPOSITORY / "cmake" / "prebuilt"))
    settings.append("--config-setting=build.targets=all")
    for name, value in definitions.items():
        text = value if isinstance(value, str) else ";".join(map(str, value))
        settings.append("--config-setting=cmake.define.%s=%s" % (name, text))
    with tempfile.TemporaryDirectory(prefix="lumatie-") as copy:
        sources = sources_of(project, pathlib.Path(copy))
        tool("build", "--wheel", *ALONE, "--outdir", folder, *settings, sources)
    return only(folder, "*.whl")


def tagged(wheel, interpreter, platform):
    """The wheel under the name that tells what it is for."""
    tags = ["--platform-tag=" + platform]
    if interpreter is not None:
        tags += ["--python-tag=" + interpreter, "--abi-tag=" + interpreter]
    folder = wheel.parent
    tool("wheel", "tags", "--remove", *tags, wheel)
    return only(folder, "*.whl")


def for_old_systems(wheel):
    """The wheel for Linux, named after the oldest systems that have what its libraries need."""
    folder = wheel.parent / "repaired"
    # Canon's library is the user's.
    tool("auditwheel", "repair", "--exclude", "libEDSDK.so", "--wheel-dir", folder, wheel)
    repaired = only(folder, "*.whl")
    print(tool("auditwheel", "show", repaired).strip())  # what the name follows from
    return repaired


def interpreter_of(module):
    """The tag of the interpreter that a module file is for: cp38."""
    found = re.search(r"\.cpython-(\d+)-", module.name)
    return "cp" + found.group(1) if found else "cp38"


def make(into, system, project, interpreter, definitions):
    """Makes one wheel in a folder, and returns where it is."""
    with tempfile.TemporaryDirectory(prefix="lumatie-") as folder:
        named = {"LUMATIE_NOTICES": notices(system, project), **definitions}
        wheel = packed(project, pathlib.Path(folder), named)
        if system == "windows":
            wheel = tagged(wheel, interpreter, "win_amd64")
        else:
            wheel = for_old_systems(tagged(wheel, interpreter, "linux_x86_64"))
        return shutil.move(str(wheel), str(into / wheel.name))


def modules(system):
    """The module files that the tree has built for wheels, one for each interpreter."""
    if system == "windows":
        return [BUILD / "windows" / "python" / "_Lumatie.pyd"]
    return sorted((BUILD / "linux" / "wheel").glob("_Lumatie.*.so"))


def make_module_wheels(into, system, chosen):
    for module in modules(system):
        if chosen and interpreter_of(module) not in chosen:
            continue
        yield make(
            into,
            system,
            "lumatie",
            interpreter_of(module),
            {
                "LUMATIE_LIBRARIES": [module],
                "LUMATIE_FILES": [BUILD / system / "python" / "Lumatie.py"],
                "LUMATIE_STUBS": str(STUBS),
            },
        )


def make_virtual_wheel(into, system):
    """The virtual cameras, which are for any interpreter."""
    names = ["VirtualNikon.md3", "EDSDK.dll" if system == "windows" else "libEDSDK.so"]
    with tempfile.TemporaryDirectory(prefix="lumatie-") as folder:
        libraries = [pathlib.Path(folder, name) for name in names]
        for library in libraries:
            shutil.copy(str(BUILD / system / "virtual" / library.name), str(library))
            if system == "linux":
                run("strip", "--strip-all", library)
        where = {"LUMATIE_LIBRARIES": libraries, "LUMATIE_FOLDER": "lumatie_virtual"}
        return make(into, system, "lumatie-virtual", None, where)


def make_source_distributions(into):
    for project in ("lumatie", "lumatie-virtual"):
        with tempfile.TemporaryDirectory(prefix="lumatie-") as copy:
            sources = sources_of(project, pathlib.Path(copy))
            tool("build", "--sdist", *ALONE, "--outdir", into, sources)
        yield only(into, "%s-*.tar.gz" % project.replace("-", "_"))


def install(wheel, virtual, folder):
    """Installs a wheel, and the virtual cameras, in its interpreter's folder."""
    _, _, interpreter, abi, platform = pathlib.Path(wheel).stem.split("-")
    target = folder / interpreter
    shutil.rmtree(str(target), ignore_errors=True)
    what = ("--python-version", interpreter[2:], "--abi", abi, "--platform", platform)
    how = ("--quiet", "--no-index", "--no-deps", "--only-binary", ":all:", "--target", target)
    tool("pip", "install", *how, *what, wheel, virtual)


def clear(into, system):
    """Removes what an earlier run made for a system."""
    into.mkdir(parents=True, exist_ok=True)
    patterns = ["*win_amd64.whl"] if system == "windows" else ["*linux*.whl", "*.tar.gz"]
    for pattern in patterns:
        for path in glob.glob(str(into / pattern)):
            os.remove(path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("system", choices=("linux", "windows"))
    parser.add_argument("--into", type=pathlib.Path, default=BUILD / "wheels", help="a folder")
    parser.add_argument("--only", metavar="TAG", nargs="+", help="interpreters, such as cp38")
    parser.add_argument(
        "--install", type=pathlib.Path, help="a folder with one for each interpreter"
    )
    options = parser.parse_args()
    system, into = options.system, options.into.resolve()
    os.umask(0o022)
    clear(into, system)
    virtual = make_virtual_wheel(into, system)
    print(virtual)
    for path in make_module_wheels(into, system, options.only):
        print(path)
        if options.install:
            install(path, virtual, options.install)
    if system == "linux" and not options.only:
        for path in make_source_distributions(into):
            print(path)


if __name__ == "__main__":
    main()
