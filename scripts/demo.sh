#!/usr/bin/env bash
# demo.sh [windows] [nikon] [ARGUMENT...]: builds, then runs the example host with the virtual Canon
# camera or the virtual Nikon camera; the arguments are the host's.
# demo.sh page [nikon] [ARGUMENT...]: the same with the page, until Ctrl-C; the arguments are those of
# `lumatie serve`. The pictures go into build/demo.
# demo.sh studio [ARGUMENT...]: eight stations, a broker and a desk with its page, until Ctrl-C; the
# arguments are those of `lumatie studio`. All of it lies in a folder that goes with it.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# Serves the page with a camera whose pictures are worth a look.
serve_page() {
    local maker=canon
    if [[ ${1-} == nikon ]]; then
        maker=nikon
        shift
    fi
    mkdir -p build/demo
    printf '%s\n' 'picture.width = 3600' 'picture.height = 2400' >build/demo/camera.txt
    export "LUMATIE_VIRTUAL_${maker^^}=$PWD/build/demo/camera.txt"
    PYTHONPATH=$PWD/build/linux/python:$PWD/host exec "$tools/page/bin/python" -m lumatie_host.cli serve \
        --virtual "$maker" --folder build/demo --job demo "$@"
}

if [[ ${1-} == page ]]; then
    scripts/build.sh linux
    need_page_python
    serve_page "${@:2}"
fi

if [[ ${1-} == studio ]]; then
    need_packages mosquitto
    scripts/build.sh linux
    need_page_python
    PYTHONPATH=$PWD/build/linux/python:$PWD/host exec "$tools/page/bin/python" scripts/studio_demo.py \
        "${@:2}"
fi

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
