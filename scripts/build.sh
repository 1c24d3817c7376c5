#!/usr/bin/env bash
# build.sh [linux|windows|linux-asan|linux-tsan|fuzz|lint [TARGET]]: builds one tree in build/, or one
# target of it. The sanitizers' trees hold the C++ tests and the virtual cameras, but no module for
# Python; the tree fuzz holds the fuzz targets only. The tree lint is only configured: it says how
# each source is compiled.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

tree=${1:-linux}
target=${2:-all}
(($# <= 2)) || usage_error "./run build"

case $tree in
    linux | windows | lint) sanitizers= ;;
    linux-asan | fuzz) sanitizers=address,undefined ;;
    linux-tsan) sanitizers=thread ;;
    *) usage_error "./run build" ;;
esac
options=("-DLUMATIE_SANITIZE=$sanitizers")
packages=(cmake ninja-build)
if [[ $tree == fuzz ]]; then
    packages+=(clang-14 libclang-rt-14-dev llvm-14 g++)
    # Few sources and many runs: what is optimised pays.
    options+=(-DLUMATIE_FUZZ=libfuzzer -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14
        "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g")
else
    packages+=(g++ python3-dev libgtest-dev googletest libstb-dev)
fi
if [[ -n $sanitizers && $tree != fuzz ]]; then
    # A third of -O2's time to compile, and better stacks, of which -g1 knows the lines.
    options+=("-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O0 -g1 -DNDEBUG")
fi

# A compiler that checks does not read the precompiled headers of the one that builds.
if [[ $tree == lint ]]; then
    options+=(-DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON -DLUMATIE_FUZZ=replay -DLUMATIE_BENCH=ON)
    packages+=(libbenchmark-dev)
fi

need_packages "${packages[@]}"
if [[ $tree == linux || $tree == windows ]]; then
    if [[ -z ${LUMATIE_SWIG:-} ]]; then
        need_python_tool swig
    fi
    options+=(-DLUMATIE_SWIG="${LUMATIE_SWIG:-$tools/swig/bin/swig}")
fi
if [[ $tree == windows ]]; then
    need_packages g++-mingw-w64-x86-64-posix wine64 wine
    need_windows_python
    options+=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/MinGW.cmake" -DLUMATIE_STB_DIR=/usr/include/stb
        -DLUMATIE_WINDOWS_PYTHON="$windows_python")
fi
if [[ $tree == linux ]]; then
    pythons=$("$system_python" scripts/find_pythons.py)
    [[ -n $pythons ]] || fail "no 64-bit CPython 3.8 or newer that has its headers"
    note "building for ${pythons//$'\n'/, }"
    options+=(-DLUMATIE_PYTHONS="${pythons//$'\n'/;}")
fi

note "build/$tree"
cmake -S . -B "build/$tree" -G Ninja --log-level=WARNING "${options[@]}"
[[ $tree == lint ]] || cmake --build "build/$tree" --parallel "$(nproc)" --target "$target"
