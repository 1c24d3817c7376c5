#!/usr/bin/env bash
# wine.sh PROGRAM [ARGUMENT...]: runs a Windows program of this tree under Wine, with the libraries
# that it needs in its search path. What it cannot do on a desk with Windows stands here, not in the
# programs.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

python=${LUMATIE_WINDOWS_PYTHON:-$root/build/tools/windows-python}
export WINEPREFIX=$root/build/tools/wine WINEDEBUG=-all
# No offers to install what nobody here needs, and no debugger in the way of a crash.
export WINEDLLOVERRIDES='mscoree=d;mshtml=d;winedbg.exe=d'
export WINEPATH="Z:${python//\//\\};Z:${root//\//\\}\\build\\windows\\virtual"
# For programs with an interpreter inside, which look for its modules beside themselves.
[[ ${1##*/} == python.exe ]] || export PYTHONHOME="Z:${python//\//\\}"

# An interpreter does not start with a file as its standard output or error.
{ wine "$@" 2>&1 1>&3 | cat >&2; } 3>&1 | cat
