#!/usr/bin/env bash
# test.sh [windows|asan|tsan]: builds, runs every test runner to its end, and fails when one of them
# did.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

variant=${1:-}
case $#$variant in
    0) tree=linux ;;
    1windows) tree=windows ;;
    1asan | 1tsan) tree=linux-$variant ;;
    *) usage_error "./run test [windows|asan|tsan]" ;;
esac
readonly results=$PWD/build/results/$tree
rm -rf "$results"
mkdir -p "$results"

# A job in the background does not get the terminal's interrupt.
stop_runners() {
    local job
    for job in $(jobs -pr); do
        kill "$job"
    done
}
trap stop_runners EXIT

declare -A runners=()

# start NAME COMMAND...: starts a test runner, whose output is kept. One that hangs is aborted, so
# that it can say where it was.
start() {
    local name=$1
    shift
    : >"$results/$name.log"
    timeout --signal=ABRT --kill-after=20 600 "$@" >"$results/$name.log" 2>&1 </dev/null &
    runners[$name]=$!
}

# finish NAME...: shows the output of runners that were started, and keeps their exit status.
finish() {
    local name status
    for name in "$@"; do
        note "$tree: $name"
        # Not a pipe: a process that outlives its runner would hold it open.
        tail --lines=+1 --follow --sleep-interval=0.1 --pid="${runners[$name]}" "$results/$name.log"
        status=0
        wait "${runners[$name]}" || status=$?
        echo "$status" >"$results/$name.status"
    done
}

run_cpp_tests() {
    start cpp ctest --test-dir "build/$tree" --output-on-failure --no-tests=error --timeout 120 \
        --parallel "$(nproc)"
    finish cpp
}

# A sanitizer costs most at the start and at the end of a process, so here all tests of an
# executable share one.
run_sanitized_tests() {
    local program programs names=()
    set_up_sanitizers "$variant"
    mapfile -t programs < <(find "build/$tree/tests" -name '*_test*' -type f -executable | sort)
    for program in "${programs[@]}"; do
        names+=("cpp-${program##*/}")
        start "${names[-1]}" "${sanitized[@]}" "$program" --gtest_brief=1
    done
    finish "${names[@]}"
}

# Under Wine a process takes longer to start than most tests, so here, too, those of an executable
# share one.
run_windows_cpp_tests() {
    local program programs names=()
    mapfile -t programs < <(find build/windows/tests -name '*_test*.exe' | sort)
    for program in "${programs[@]}"; do
        names+=("cpp-$(basename "$program" .exe)")
        start "${names[-1]}" scripts/wine.sh "$program" --gtest_brief=1
    done
    finish "${names[@]}"
}

# suite NAME FOLDER FILES PYTHON: starts the tests of a folder in tests/ whose files match a pattern.
suite() {
    start "$1" "$4" -X dev -m unittest discover --verbose -s "tests/$2" -t "tests/$2" -p "$3"
}

# The interpreters that the module was built for, and those of them that the whole suite runs under.
declare -a pythons=() tested=()

find_pythons() {
    mapfile -t pythons < <("$system_python" scripts/find_pythons.py)
    mapfile -t tested < <("$system_python" scripts/find_pythons.py --tested)
    export PYTHONPATH=$PWD/build/linux/python:$PWD/tests/python
    # The stubs are compared with the module by a tool that runs on the system's interpreter.
    if [[ " ${pythons[*]} " == *" $system_python "* ]]; then
        need_python_tool stubtest
        export LUMATIE_STUBTEST="'$tools/stubtest/bin/stubtest'"
    fi
}

find_windows_python() {
    tested=(scripts/windows_python.sh)
    # A process takes ten times as long to start here.
    export LUMATIE_EXIT_REPEATS=${LUMATIE_EXIT_REPEATS:-2}
    export LUMATIE_BUILD_DIR
    LUMATIE_BUILD_DIR=$(windows_path "$PWD/build/windows")
    PYTHONPATH="$LUMATIE_BUILD_DIR\\python;$(windows_path "$PWD/tests/python")"
    export PYTHONPATH
}

run_python_tests() {
    local python name names=()
    for python in "${pythons[@]}"; do
        name=$(label "$python")-import
        start "$name" "$python" -X dev scripts/smoke_test.py
        finish "$name"
    done
    # They wait more than they work, so all of this runs at the same time.
    for python in "${tested[@]}"; do
        name=$(label "$python")
        suite "$name" python 'test_[!n]*.py' "$python"
        suite "$name-nikon" python 'test_n*.py' "$python"
        names+=("$name" "$name-nikon")
    done
    finish "${names[@]}"
    names=()
    for python in "${tested[@]}"; do
        names+=("$(label "$python")-limits")
        suite "${names[-1]}" python/alone test_limits.py "$python"
    done
    finish "${names[@]}"
    for python in "${tested[@]}"; do
        name=$(label "$python")-log
        suite "$name" python/alone test_debug_log.py "$python"
        finish "$name"
    done
}

label() { "$1" -c 'import sys; print("python%d.%d" % sys.version_info[:2], end="")'; }

scripts/build.sh "$tree"
case $variant in
    '')
        run_cpp_tests
        find_pythons
        run_python_tests
        ;;
    windows)
        scripts/wine.sh --keep
        trap 'stop_runners; scripts/wine.sh --stop' EXIT
        run_windows_cpp_tests
        find_windows_python
        run_python_tests
        ;;
    *) run_sanitized_tests ;;
esac
"$system_python" scripts/totals.py "$results"
