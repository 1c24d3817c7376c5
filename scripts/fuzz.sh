#!/usr/bin/env bash
# fuzz.sh SECONDS [TARGET...]: builds the fuzz targets and runs each, or the named ones, for so many
# seconds, as many at a time as there are processors. Fails when one of them found something.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

[[ ${1:-} =~ ^[1-9][0-9]*$ ]] || usage_error "scripts/fuzz.sh SECONDS [TARGET...]"
readonly seconds=$1
shift
mapfile -t all < <(sed -n 's/^lumatie_fuzz_target(\([a-z_]*\) .*/\1/p' tests/fuzz/CMakeLists.txt)
targets=("$@")
((${#targets[@]})) || targets=("${all[@]}")
for target in "${targets[@]}"; do
    [[ " ${all[*]} " == *" $target "* ]] || fail "no fuzz target $target; there are ${all[*]}"
done
readonly results=$PWD/build/results/fuzz table=$PWD/build/results/stress/fuzz.txt

scripts/build.sh fuzz
mkdir -p "$results" "${table%/*}"

export ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1:quarantine_size_mb=64
export ASAN_SYMBOLIZER_PATH=/usr/lib/llvm-14/bin/llvm-symbolizer
export UBSAN_OPTIONS=print_stacktrace=1

# A job in the background does not get the terminal's interrupt.
trap 'jobs -pr | xargs -r kill' EXIT

# fuzz TARGET: runs it, and keeps its output and its exit status.
fuzz() {
    local corpus=build/fuzz/corpus/$1 options=() status=0
    mkdir -p "$corpus" "$results/$1"
    [[ $1 != names && $1 != data_parts ]] || options+=(-detect_leaks=0)
    [[ ! -f tests/fuzz/$1.dict ]] || options+=("-dict=tests/fuzz/$1.dict")
    # The working corpus comes first: new inputs go there, and the seeds are only read.
    "build/fuzz/targets/$1" "$corpus" "tests/fuzz/seeds/$1" "${options[@]}" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -close_fd_mask=1 \
        -print_final_stats=1 -artifact_prefix="$results/$1/" \
        >"$results/$1.log" 2>&1 </dev/null &
    # shellcheck disable=SC2064  # this one
    trap "kill $!" TERM
    wait "$!" || status=$?
    # Inputs that leave something behind are looked at for leaks as they run. Two targets always do:
    # the names that were given out are kept. Their corpus is looked at once.
    if [[ ${options[*]} == *-detect_leaks=0* ]] && ((status == 0)); then
        "build/fuzz/targets/$1" "$corpus" -runs=0 -close_fd_mask=1 -artifact_prefix="$results/$1/" \
            >"$results/$1.leaks.log" 2>&1 </dev/null || status=$?
    fi
    echo "$status" >"$results/$1.status"
}

note "$seconds seconds each: ${targets[*]}"
for target in "${targets[@]}"; do
    while (($(jobs -pr | wc -l) >= $(nproc))); do
        wait -n
    done
    fuzz "$target" &
done
wait

# stat TARGET NAME: one of the figures that the fuzzer prints at its end.
stat() { sed -n "s/^stat::$2: *//p" "$results/$1.log"; }

# last TARGET WORD: the value behind the word in the fuzzer's last line of progress.
last() {
    grep -a '^#[0-9]' "$results/$1.log" | sed -n "s/.* $2: \([^ ]*\) .*/\1/p" | tail -1
}

# The corpus is shown as inputs/bytes, the memory in megabytes.
print_table() {
    local target status result
    printf '%-14s %12s %9s %7s %7s %12s %7s  %s\n' \
        target executions per-second cov ft corpus memory result
    for target in "${targets[@]}"; do
        status=$(<"$results/$target.status")
        result=nothing
        ((status == 0)) || result="FOUND: see $results/$target.log"
        printf '%-14s %12s %9s %7s %7s %12s %7s  %s\n' "$target" \
            "$(stat "$target" number_of_executed_units)" "$(stat "$target" average_exec_per_sec)" \
            "$(last "$target" cov)" "$(last "$target" ft)" "$(last "$target" corp)" \
            "$(stat "$target" peak_rss_mb)" "$result"
    done
}
print_table | tee "$table"

for target in "${targets[@]}"; do
    (($(<"$results/$target.status") == 0)) ||
        fail "the fuzzer found something; docs/testing.md tells how to go on"
done
