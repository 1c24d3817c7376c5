#!/usr/bin/env bash
# wine.sh PROGRAM [ARGUMENT...]: runs a Windows program of this tree under Wine, with the libraries
# that it needs in its search path. What only Wine needs stands here, not in the programs.
# wine.sh --keep, wine.sh --stop: starts what serves all of them, until it is stopped. Otherwise the
# first program starts it, and its output stays open until the last one of all has ended.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

export WINEPREFIX=$tools/wine WINEDEBUG=-all
# No offers to install what nobody here needs, and no debugger in the way of a crash.
export WINEDLLOVERRIDES='mscoree=d;mshtml=d;winedbg.exe=d'
WINEPATH="$(windows_path "$windows_python");$(windows_path "$PWD/build/windows/virtual")"
export WINEPATH
# For programs with an interpreter inside, which looks for its modules beside them otherwise.
if [[ ${1##*/} != python.exe ]]; then
    PYTHONHOME=$(windows_path "$windows_python")
    export PYTHONHOME
fi

mkdir -p "$WINEPREFIX"
case $1 in
    # Refused where it runs already, or does not run any more.
    --keep) wineserver --persistent 2>/dev/null || true ;;
    --stop) wineserver --kill 2>/dev/null || true; exit ;;
esac

# One at a time makes the folder that stands for a Windows machine.
exec {turn}>"$tools/wine.lock"
flock "$turn"
[[ -f $WINEPREFIX/system.reg ]] || wine wineboot --init >/dev/null 2>&1 {turn}>&-
exec {turn}>&-

# The first program that makes a window starts a desktop, which ends with the last one, and has the
# pipes of its own output open until then: whoever reads it would wait for other programs. This one
# outlives all of them.
readonly keep_desktop='
import ctypes, time
ctypes.windll.user32.GetDesktopWindow()
print("ready", flush=True)
time.sleep(86400)
'
if [[ $1 == --keep ]]; then
    wine wineboot >/dev/null 2>&1
    read -r _ < <(exec wine "$windows_python/python.exe" -c "$keep_desktop" </dev/null 2>/dev/null) ||
        fail "Wine has no desktop"
    exit
fi

# An interpreter does not start with a file as its standard output or error.
{ wine "$@" 2>&1 1>&3 | cat >&2; } 3>&1 | cat
