#!/usr/bin/env bash
# wheels.sh [linux|windows]: builds what is missing, then makes the wheels of the module, one for each
# interpreter, and of the virtual cameras, in build/wheels; for Linux the source distribution, too.
# Without a system's name: all of them.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

systems=(linux windows)
if (($# == 1)) && [[ $1 == linux || $1 == windows ]]; then
    systems=("$1")
elif (($#)); then
    usage_error "./run wheels [linux|windows]"
fi

need_wheel_tools
for system in "${systems[@]}"; do
    scripts/build.sh "$system" wheel
    "$tools/wheels/bin/python" scripts/wheels.py "$system"
done
