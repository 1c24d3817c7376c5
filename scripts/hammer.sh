#!/usr/bin/env bash
# hammer.sh SECONDS [tsan|asan]: hammers sessions with both makers' virtual cameras, side by side and
# for so many seconds each, under a sanitizer; docs/endurance.md says what happens then.
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

declare -A running=()
for maker in canon nikon; do
    hammer "$maker" &
    running[$maker]=$!
done

failed=()
for maker in canon nikon; do
    wait "${running[$maker]}" || failed+=("$maker")
    name=$results/hammer-$sanitizer-$maker
    note "hammer, $sanitizer"
    cat "$name.log"
    # grep fails when it counts none.
    reports=$(grep -cE 'WARNING: ThreadSanitizer|ERROR: (Address|Leak)Sanitizer|runtime error:' \
        "$name.err") || true
    printf 'reports by the sanitizer %s\n' "$reports"
    if [[ -s $name.err ]]; then
        tail -100 "$name.err" >&2
        failed+=("$maker")
    fi
done
((${#failed[@]} == 0)) || fail "hammer: ${failed[*]}"
