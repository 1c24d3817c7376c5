#!/usr/bin/env bash
# demo.sh [nikon] [ARGUMENT...]: builds, then runs the example host with the virtual Canon camera or
# the virtual Nikon camera; the arguments are the host's.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

if [[ ${1-} == nikon ]]; then
    set -- --camera "$PWD/build/linux/virtual/VirtualNikon.md3" "${@:2}"
fi

scripts/build.sh
pythons=$("$system_python" scripts/find_pythons.py --tested)
PYTHONPATH=$PWD/build/linux/python exec "${pythons%%$'\n'*}" host/tether_demo.py "$@"
