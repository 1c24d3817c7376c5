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

# runner NAME COMMAND...: runs one test runner, shows its output and keeps it with its exit status.
# One that hangs is aborted, so that it can say where it was.
runner() {
    local name=$1 log=$results/$1.log status=0
    shift
    note "$tree: $name"
    : >"$log"
    timeout --signal=ABRT --kill-after=20 300 "$@" >"$log" 2>&1 </dev/null &
    # Not a pipe: a process that outlives its runner would hold it open.
    tail --lines=+1 --follow --sleep-interval=0.1 --pid=$! "$log"
    wait $! || status=$?
    echo "$status" >"$results/$name.status"
}

run_cpp_tests() {
    export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1
    export LSAN_OPTIONS=suppressions=$PWD/scripts/lsan.supp:print_suppressions=0
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=second_deadlock_stack=1
    runner cpp "${fixed_layout[@]}" ctest --test-dir "build/$tree" --output-on-failure \
        --no-tests=error --timeout 120 --parallel "$(nproc)"
}

run_python_tests() {
    local python pythons tested
    pythons=$("$system_python" scripts/find_pythons.py)
    tested=$("$system_python" scripts/find_pythons.py --tested)
    export PYTHONPATH=$PWD/build/linux/python
    # The stubs are compared with the module by a tool that runs on the system's interpreter.
    if grep -qxF "$system_python" <<<"$pythons"; then
        need_python_tool stubtest
        export LUMATIE_STUBTEST="'$tools/stubtest/bin/stubtest'"
    fi
    while read -r python; do
        if grep -qxF "$python" <<<"$tested"; then
            runner "$(label "$python")" "$python" -X dev -m unittest discover --verbose \
                --start-directory tests/python --top-level-directory tests/python
        else
            runner "$(label "$python")-import" "$python" -X dev scripts/smoke_test.py
        fi
    done <<<"$pythons"
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
