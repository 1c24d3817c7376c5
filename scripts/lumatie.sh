#!/usr/bin/env bash
# lumatie.sh ARGUMENT...: builds what is missing, then runs the command `lumatie` of this tree.
# Standard output is the command's alone.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scripts/build.sh linux >&2
if [[ " $* " =~ ' '(serve|station|studio)' ' ]]; then
    # The page and a studio's stations need libraries, which an environment of the system's interpreter has.
    need_page_python >&2
    python=$tools/page/bin/python
else
    pythons=$("$system_python" scripts/find_pythons.py --tested)
    python=${pythons%%$'\n'*}
fi
PYTHONPATH=$PWD/build/linux/python:$PWD/host exec "$python" -m lumatie_host.cli "$@"
