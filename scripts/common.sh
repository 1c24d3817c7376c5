# Sourced by the other scripts: messages, and the installation of what a command needs.
# They all run with the root of the tree as their working directory.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Tools run on the system's interpreter, whatever a user's PATH puts in front of it.
readonly system_python=/usr/bin/python3
readonly tools=$PWD/build/tools
# A CPython 3.8 for Windows x64: an installation's folder, or the one that need_windows_python makes.
readonly windows_python=${LUMATIE_WINDOWS_PYTHON:-$tools/windows-python}
readonly windows_page=$tools/windows-page

note() { printf '== %s\n' "$*"; }

fail() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

# usage_error TEXT: what the caller should have typed.
usage_error() {
    printf 'usage: %s\n' "$*" >&2
    exit 2
}

is_installed() { [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]; }

# need_packages NAME...: installs the Debian packages that are missing. Scripts that run side by side
# do so one after the other: apt-get does not wait for another one.
need_packages() {
    local package missing=() turn
    if ! command -v apt-get >/dev/null; then
        note "no apt-get here: taking for granted the counterparts of the Debian packages $*"
        return
    fi
    mkdir -p build
    exec {turn}>build/apt-get.lock
    flock "$turn"
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    ((${#missing[@]} == 0)) || install "${missing[@]}"
    exec {turn}>&-
}

install() {
    local as_root=()
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            fail "neither root nor sudo; have these packages installed: $*"
        as_root=(sudo)
    fi
    note "installing $*"
    as_root+=(env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Use-Pty=0)
    if [[ -z ${lists_are_fresh:-} ]]; then
        "${as_root[@]}" update || note "the package lists could not be refreshed; using the old ones"
        lists_are_fresh=yes
    fi
    "${as_root[@]}" install -y --no-install-recommends "$@" </dev/null ||
        fail "apt-get could not install $*"
}

# need_python_tool NAME [CHECK...]: installs the pinned wheels of scripts/NAME.txt in an environment
# of its own. CHECK is a command of the environment that shows that it works: by default the one of
# that name, asked for its help. A tree that was moved has environments that no longer start: they
# are made anew. Scripts that run side by side do so one after the other.
need_python_tool() {
    local turn check=("${@:2}")
    ((${#check[@]})) || check=("$1" --help)
    mkdir -p "$tools"
    exec {turn}>"$tools/$1.lock"
    flock "$turn"
    if ! cmp -s "scripts/$1.txt" "$tools/$1/installed.txt" ||
        ! "$tools/$1/bin/${check[0]}" "${check[@]:1}" >/dev/null 2>&1; then
        install_python_tool "$1"
    fi
    exec {turn}>&-
}

# need_page_python: the environment that serves the tether page and joins a studio, and tests both.
need_page_python() { need_python_tool page python -c 'import aiohttp, paho.mqtt, PIL, rawpy, segno'; }

# need_wheel_tools: what makes the wheels and looks into them.
need_wheel_tools() { need_python_tool wheels python -c 'import scikit_build_core, auditwheel, elftools, pefile'; }

install_python_tool() {
    local name=$1 requirements=scripts/$1.txt environment=$tools/$1
    need_packages python3-venv ca-certificates
    note "installing $(grep -om1 '^[a-z]*==[0-9.]*' "$requirements") in $environment"
    rm -rf "$environment"
    "$system_python" -m venv "$environment" || fail "no virtual environment in $environment"
    "$environment/bin/pip" install --quiet --disable-pip-version-check --no-input \
        --only-binary :all: --require-hashes --requirement "$requirements" ||
        fail "$name could not be downloaded; $(head -1 "$requirements" | sed 's/^# *//')"
    cp "$requirements" "$environment/installed.txt"
}

# need_node_tools: installs what tests/page/package.json names in build/tools/node, and Debian's Node.js
# where there is none or one before 18.
need_node_tools() {
    local lock=tests/page/package-lock.json turn
    if ! node --eval 'process.exit(parseInt(process.versions.node) < 18)' 2>/dev/null; then
        need_packages nodejs
    fi
    command -v npm >/dev/null || need_packages npm
    mkdir -p "$tools/node"
    exec {turn}>"$tools/node.lock"
    flock "$turn"
    if ! cmp -s "$lock" "$tools/node/installed.json"; then
        note "installing what tests/page/package.json names in $tools/node"
        cp tests/page/package.json "$lock" "$tools/node"
        npm ci --prefix "$tools/node" --ignore-scripts --no-audit --no-fund --loglevel=error ||
            fail "the tools of tests/page/package.json could not be downloaded"
        cp "$lock" "$tools/node/installed.json"
    fi
    exec {turn}>&-
}

# need_windows_python: makes the interpreter that the Windows build is for, unless one was named.
need_windows_python() {
    if [[ -n ${LUMATIE_WINDOWS_PYTHON:-} ]]; then
        [[ -f $windows_python/python38.dll && -f $windows_python/include/Python.h ]] ||
            fail "LUMATIE_WINDOWS_PYTHON: no CPython 3.8 with its headers in $windows_python"
        return
    fi
    cmp -s scripts/windows.txt "$windows_python/installed.txt" && return
    local python
    python=$("$system_python" scripts/find_pythons.py --version 3.8)
    [[ -n $python ]] || fail "the Windows interpreter is made with the modules and headers of a \
CPython 3.8 on this machine, and there is none; have one installed, or name an official CPython 3.8 \
for Windows x64 (the folder that holds python.exe) in LUMATIE_WINDOWS_PYTHON"
    note "making a Windows interpreter in $windows_python"
    need_pip
    rm -rf "$windows_python"
    "$system_python" scripts/windows_python.py --pip "$tools/pip/bin/pip" \
        --python "${python%%$'\n'*}" "$windows_python"
    cp scripts/windows.txt "$windows_python/installed.txt"
}

need_pip() {
    need_packages python3-venv ca-certificates
    [[ -x $tools/pip/bin/pip ]] || "$system_python" -m venv "$tools/pip"
}

# need_windows_page: what serves the tether page and joins a studio in the Windows interpreter. It
# finds it there, as a user's own packages, when PYTHONUSERBASE is $windows_page.
need_windows_page() {
    local requirements=scripts/windows_page.txt packages=$windows_page/Python38/site-packages
    cmp -s "$requirements" "$windows_page/installed.txt" && return
    note "installing what $requirements names in $windows_page"
    need_pip
    rm -rf "$windows_page"
    "$tools/pip/bin/pip" install --quiet --disable-pip-version-check --no-input --no-deps \
        --only-binary :all: --platform win_amd64 --implementation cp --python-version 3.8 \
        --require-hashes --requirement "$requirements" --no-compile --target "$packages" ||
        fail "the page's libraries for Windows could not be downloaded"
    compile_for_windows "$packages"
    cp "$requirements" "$windows_page/installed.txt"
}

# compile_for_windows FOLDER: what a CPython 3.8 of this machine makes of modules is the same there.
# Each process would do it again where PYTHONDONTWRITEBYTECODE is set.
compile_for_windows() {
    local python
    python=$("$system_python" scripts/find_pythons.py --version 3.8)
    [[ -z $python ]] || "${python%%$'\n'*}" -m compileall -q -j 0 "$1" >/dev/null ||
        note "some of the modules in $1 cannot be compiled"
}

# set_up_sanitizers asan|tsan: sets the sanitizers' options, and in `sanitized` what a program has to
# be started with.
# shellcheck disable=SC2034  # the script that sources this uses it
set_up_sanitizers() {
    export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1
    export LSAN_OPTIONS=suppressions=$PWD/scripts/lsan.supp:print_suppressions=0
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=second_deadlock_stack=1
    sanitized=()
    # The thread sanitizer of GCC 12 needs the address space where it expects it.
    if [[ $1 == tsan ]] && setarch --addr-no-randomize true 2>/dev/null; then
        sanitized=(setarch --addr-no-randomize)
    fi
}

# windows_path PATH: how a program under Wine calls a file of this machine.
windows_path() {
    local path=Z:$1
    printf '%s\n' "${path//\//\\}"
}

# The hand-written files, one a line; whatever is generated lies in build/.
cpp_files() { find System interfaces virtual tests bench scripts -name '*.h' -o -name '*.cpp' -o -name '*.c' | sort; }
windows_files() { cpp_files | grep '/windows/.*\.cpp$' | grep -v '^scripts/'; }
# The module's sources for Windows, but for those that know the interpreter.
microsoft_files() { cpp_files | grep '^System/.*\.cpp$' | grep -v -e /posix/ -e /PyCallback.cpp -e /PyErrors.cpp; }
shell_files() { printf '%s\n' run .ci/run scripts/*.sh; }
