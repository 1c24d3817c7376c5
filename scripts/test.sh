#!/usr/bin/env bash
# test.sh [asan|tsan]: builds, runs every test runner to its end, and fails when one of them did.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

variant=${1:-}
case $#$variant in
    0) tree=linux ;;
    1asan | 1tsan) tree=linux-$variant ;;
    *) usage_error "./run test [asan|tsan]" ;;
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
    export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1
    export LSAN_OPTIONS=suppressions=$PWD/scripts/lsan.supp:print_suppressions=0
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=second_deadlock_stack=1
    start cpp "${fixed_layout[@]}" ctest --test-dir "build/$tree" --output-on-failure \
        --no-tests=error --timeout 120 --parallel "$(nproc)"
    finish cpp
}

# suite NAME FOLDER PYTHON: starts the tests of a folder in tests/.
suite() { start "$1" "$3" -X dev -m unittest discover --verbose -s "tests/$2" -t "tests/$2"; }

run_python_tests() {
    local python pythons tested name names=()
    mapfile -t pythons < <("$system_python" scripts/find_pythons.py)
    mapfile -t tested < <("$system_python" scripts/find_pythons.py --tested)
    export PYTHONPATH=$PWD/build/linux/python:$PWD/tests/python
    # The stubs are compared with the module by a tool that runs on the system's interpreter.
    if [[ " ${pythons[*]} " == *" $system_python "* ]]; then
        need_python_tool stubtest
        export LUMATIE_STUBTEST="'$tools/stubtest/bin/stubtest'"
    fi
    for python in "${pythons[@]}"; do
        name=$(label "$python")-import
        start "$name" "$python" -X dev scripts/smoke_test.py
        finish "$name"
    done
    # They wait more than they work, so the interpreters take the suite at the same time.
    for python in "${tested[@]}"; do
        names+=("$(label "$python")")
        suite "${names[-1]}" python "$python"
    done
    finish "${names[@]}"
    for python in "${tested[@]}"; do
        name=$(label "$python")-alone
        suite "$name" python/alone "$python"
        finish "$name"
    done
}

label() { "$1" -c 'import sys; print("python%d.%d" % sys.version_info[:2])'; }

scripts/build.sh "$tree"
# The thread sanitizer of GCC 12 needs the address space where it expects it.
fixed_layout=()
if [[ $variant == tsan ]] && setarch --addr-no-randomize true 2>/dev/null; then
    fixed_layout=(setarch --addr-no-randomize)
fi
run_cpp_tests
[[ -n $variant ]] || run_python_tests
"$system_python" scripts/totals.py "$results"
