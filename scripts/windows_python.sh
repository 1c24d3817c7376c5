#!/usr/bin/env bash
# windows_python.sh [ARGUMENT...]: the Windows interpreter, under Wine.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

exec scripts/wine.sh "$windows_python/python.exe" "$@"
