#!/usr/bin/env bash
# demo.sh [windows] [nikon] [ARGUMENT...]: builds, then runs the example host with the virtual Canon
# camera or the virtual Nikon camera; the arguments are the host's.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

tree=linux
if [[ ${1-} == windows ]]; then
    tree=windows
    shift
fi
scripts/build.sh "$tree"

build=$PWD/build/$tree
python=scripts/windows_python.sh
if [[ $tree == windows ]]; then
    build=$(windows_path "$build")
else
    pythons=$("$system_python" scripts/find_pythons.py --tested)
    python=${pythons%%$'\n'*}
fi
if [[ ${1-} == nikon ]]; then
    set -- --camera "$build/virtual/VirtualNikon.md3" "${@:2}"
fi
PYTHONPATH=$build/python exec "$python" host/tether_demo.py "$@"
