#!/usr/bin/env bash
# hammer.sh SECONDS [tsan|asan]: hammers sessions with both makers' virtual cameras, side by side and
# for so many seconds each, under a sanitizer, and then, for a quarter of that time, programs that
# end in the middle of it; docs/testing.md says what is looked for.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds=${1:-}
sanitizer=${2:-tsan}
[[ $# -le 2 && $seconds =~ ^[1-9][0-9]*$ && $sanitizer =~ ^(tsan|asan)$ ]] ||
    usage_error "scripts/hammer.sh SECONDS [tsan|asan]"

scripts/build.sh "linux-$sanitizer" hammer
set_up_sanitizers "$sanitizer"
readonly results=$PWD/build/results/stress
mkdir -p "$results"

# The sessions write to standard output, too. A hammer that hangs is aborted, so that the
# sanitizer can say where it was.
hammer() {
    local name=$results/hammer-$sanitizer-$1
    timeout --signal=ABRT --kill-after=20 $((seconds + 300)) "${sanitized[@]}" \
        "build/linux-$sanitizer/tests/stress/hammer" "$1" "$seconds" 2>"$name.err" </dev/null |
        sed -n 's/^hammer: //p' >"$name.log"
}

# Programs that end, one after the other. The interpreter keeps what a program did not let go of, and
# hides it from the leak check.
end_programs() {
    local name=$results/exits-$sanitizer-$1 end=$((SECONDS + (seconds + 3) / 4)) seed=0 failed=0
    export ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0
    : >"$name.err"
    : >"$name.log"
    while ((SECONDS < end && failed == 0)); do
        seed=$((seed + 1))
        timeout --signal=ABRT --kill-after=20 180 "${sanitized[@]}" \
            "build/linux-$sanitizer/tests/stress/hammer" "$1" exit "$seed" 2>>"$name.err" \
            </dev/null | sed -n 's/^hammer: //p' >>"$name.log" || failed=1
    done
    printf '%s, %d ends of programs, failed %d\n' "$1" "$seed" "$failed" >>"$name.log"
    return "$failed"
}

failed=()
show_results() {
    local name=$results/$1-$sanitizer-$2 reports
    cat "$name.log"
    # grep fails when it counts none.
    reports=$(grep -cE 'WARNING: ThreadSanitizer|ERROR: (Address|Leak)Sanitizer|runtime error:' \
        "$name.err") || true
    printf 'reports by the sanitizer %s\n' "$reports"
    if [[ -s $name.err ]]; then
        tail -100 "$name.err" >&2
        failed+=("$2")
    fi
}

# run_both FUNCTION NAME: a function for both makers at the same time, and what came of it.
run_both() {
    local -A running=()
    local maker
    for maker in canon nikon; do
        "$1" "$maker" &
        running[$maker]=$!
    done
    for maker in canon nikon; do
        wait "${running[$maker]}" || failed+=("$maker")
        note "$2, $sanitizer"
        show_results "$2" "$maker"
    done
}

run_both hammer hammer
run_both end_programs exits
((${#failed[@]} == 0)) || fail "hammer: ${failed[*]}"
