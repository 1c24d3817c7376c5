#!/usr/bin/env bash
# lint.sh: every check of the sources runs; fails when one of them found something.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
(($# == 0)) || usage_error "./run lint"

need_packages clang-format-14 clang-tidy-14 clang-14 libclang-14-dev llvm-14-dev shellcheck \
    g++-mingw-w64-x86-64-posix googletest
need_python_tool ruff
need_python_tool stubtest
need_page_python
need_node_tools
need_windows_python

failed=()
check() {
    note "$1"
    "${@:2}" || failed+=("$1")
}

# clang-tidy has to know how each source is compiled.
tidy() {
    build_tidy_extension && scripts/build.sh lint && "$system_python" scripts/tidy.py build/lint
}

readonly tidy_extension=build/tidy/OwnDeclarations.so
build_tidy_extension() {
    local source=scripts/tidy/OwnDeclarations.cpp
    [[ $tidy_extension -nt $source ]] && return
    mkdir -p "${tidy_extension%/*}"
    # Without what the libraries that it is loaded beside were built without.
    clang++-14 -std=c++17 -Wall -Wextra -Werror -fPIC -shared -fno-rtti \
        -isystem /usr/lib/llvm-14/include "$source" -o "$tidy_extension"
}

# What Clang has to be told to compile for Windows with MinGW's headers.
mingw=$(dirname "$(x86_64-w64-mingw32-g++-posix -print-file-name=include)")/include
windows_options=(-std=c++17 -Wall -Wextra -Wpedantic -nostdinc++ -isystem "$mingw/c++"
    -isystem "$mingw/c++/x86_64-w64-mingw32" -isystem /usr/x86_64-w64-mingw32/include
    -isystem /usr/src/googletest/googletest/include
    -isystem "$windows_python/include"
    -ISystem/PyAdapater/Lumatie -Iinterfaces -Ivirtual -Itests/unit
    '-DLUMATIE_REGISTRY_KEY="key"' '-DLUMATIE_TEST_REGISTRY_KEY="key"'
    '-DLUMATIE_VIRTUAL_DIR="folder"' '-DLUMATIE_NEIGHBOUR="dll"' '-DLUMATIE_NEEDS_NEIGHBOUR="dll"')

tidy_windows() {
    mapfile -t sources < <(windows_files)
    clang-tidy-14 --quiet --load="$tidy_extension" --checks=lumatie-own-declarations \
        "${sources[@]}" -- --target=x86_64-w64-mingw32 "${windows_options[@]}" \
        2> >(grep -v ' warnings generated\.$' >&2)
}

# Microsoft's compiler is not to be had here. Clang knows its dialect and its binary interface; its
# headers are the one thing that is MinGW's here.
check_microsoft_dialect() {
    local source status=0
    for source in $(microsoft_files); do
        clang++-14 --target=x86_64-pc-windows-msvc -fgnuc-version=12.0 -fno-ms-compatibility \
            -U_MSC_VER -D__MINGW32__ -D__MINGW64__ -D__MINGW_IMPORT=extern '-D__declspec(x)=' \
            -Werror -fsyntax-only "${windows_options[@]}" "$source" || status=1
    done
    return "$status"
}

# The checker lies beside the stubs' one.
check_types() {
    local system status=0
    for system in linux win32; do
        "$tools/stubtest/bin/mypy" --strict --python-version 3.8 --platform "$system" \
            --python-executable "$tools/page/bin/python" --cache-dir build/mypy host/lumatie host/lumatie_host || status=1
    done
    return "$status"
}

# The page's modules, its worker, which has other things around it, and the page's tests.
check_page() {
    local project status=0
    for project in static worker tsconfig; do
        "$tools/node/node_modules/.bin/tsc" --project "tests/page/$project.json" || status=1
    done
    return "$status"
}

mapfile -t cpp < <(cpp_files)
mapfile -t shell < <(shell_files)
check "clang-format" clang-format-14 --dry-run -Werror "${cpp[@]}"
check "shell scripts" shellcheck --external-sources --source-path=SCRIPTDIR "${shell[@]}"
check "Python, format" "$tools/ruff/bin/ruff" format --config scripts/ruff.toml --check .
check "Python" "$tools/ruff/bin/ruff" check --config scripts/ruff.toml .
check "types" check_types
check "types of the page" check_page
check "types of an application" "$system_python" scripts/checkers.py
check "rooms" "$system_python" scripts/architecture.py
check "commits" "$system_python" scripts/commits.py
check "clang-tidy" tidy
check "clang-tidy for Windows" tidy_windows
check "Microsoft's dialect" check_microsoft_dialect

((${#failed[@]} == 0)) || fail "lint: $(IFS=,; echo "${failed[*]}")"
