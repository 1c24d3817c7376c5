#!/usr/bin/env bash
# stress.sh [--short] [PART...] [-- ARGUMENT...]: what nobody does on purpose, and all that at once.
#
#   matrix    every call of the makers' libraries, misbehaving in every way, during a shoot
#   hosts     hosts that raise, block, exit, fork, are interrupted
#   soak      10,000 pictures with each maker
#   threads   all operations from four threads while events storm, under the thread sanitizer
#   fuzz      what cameras and driver modules send, made up by a fuzzer
#   mutants   defects put into the module, which the tests have to notice (not unless it is named)
#
# The arguments are those of the part's own program. The short form takes some minutes.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# What the parts take: in the long form, in the short one.
declare -A pictures=([long]=10000 [short]=500) sample=([long]=1 [short]=8)
declare -A hammered=([long]=600 [short]=10) fuzzed=([long]=600 [short]=20)

form=long
if [[ ${1-} == --short ]]; then
    form=short
    shift
fi
parts=()
while (($#)) && [[ $1 != -- ]]; do
    parts+=("$1")
    shift
done
(($# == 0)) || shift
if ((${#parts[@]} == 0)); then
    parts=(matrix hosts soak threads fuzz)
    [[ $form == long ]] || parts=(matrix soak threads fuzz)  # the hosts are among the tests
fi

readonly results=$PWD/build/results/stress
mkdir -p "$results"

# In a list of commands nothing stops at a failure by itself.
find_python() {
    scripts/build.sh linux || return
    mapfile -t pythons < <("$system_python" scripts/find_pythons.py --tested)
    python=${pythons[0]}
    export PYTHONPATH=$PWD/build/linux/python:$PWD/tests/python
}

run_part() {
    case $1 in
        matrix)
            find_python || return
            "$python" tests/stress/fault_matrix.py --sample "${sample[$form]}" "${@:2}"
            ;;
        hosts)
            find_python || return
            LUMATIE_EXIT_REPEATS=20 "$python" -X dev -m unittest "${@:2}" \
                test_callbacks test_exit test_nikon_exit test_processes
            ;;
        soak)
            find_python || return
            local maker status=0
            for maker in canon nikon; do
                "$python" tests/stress/soak.py "$maker" --pictures "${pictures[$form]}" \
                    "${@:2}" || status=$?
            done
            return "$status"
            ;;
        threads) scripts/hammer.sh "${hammered[$form]}" "${@:2}" ;;
        fuzz) scripts/fuzz.sh "${fuzzed[$form]}" "${@:2}" ;;
        mutants) "$system_python" scripts/mutants.py "${@:2}" ;;
        *) usage_error "./run stress [--short] [matrix|hosts|soak|threads|fuzz|mutants]..." ;;
    esac
}

# The fuzzer only computes. In the short form it takes what the other parts, which mostly wait, leave.
fuzz_beside() {
    (
        renice --priority 10 "$BASHPID" >/dev/null
        run_part fuzz
    ) >"$results/fuzz.log" 2>&1 &
    fuzzing=$!
}
finish_fuzz() {
    local status=0
    wait "$fuzzing" || status=$?
    cat "$results/fuzz.log"
    return "$status"
}

if [[ $form == short && " ${parts[*]} " == *" fuzz "* ]]; then
    fuzz_beside
fi
failed=()
for part in "${parts[@]}"; do
    note "stress: $part"
    if [[ $part == fuzz && -n ${fuzzing-} ]]; then
        finish_fuzz || failed+=("$part")
    else
        (run_part "$part" "$@") || failed+=("$part")
    fi
done
if ((${#failed[@]})); then
    fail "stress: ${failed[*]}"
fi
