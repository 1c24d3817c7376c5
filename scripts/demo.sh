#!/usr/bin/env bash
# demo.sh [ARGUMENT...]: builds, then runs the example host; the arguments are the host's.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scripts/build.sh
pythons=$("$system_python" scripts/find_pythons.py --tested)
PYTHONPATH=$PWD/build/linux/python exec "${pythons%%$'\n'*}" host/tether_demo.py "$@"
