#!/usr/bin/env bash
# stress.sh [--short] [PART...] [-- ARGUMENT...]: what nobody does on purpose, and all that at once.
#
#   matrix    every call of the makers' libraries, misbehaving in every way, during a shoot
#   check     lumatie check, with all that during the check
#   hosts     hosts that raise, block, exit, fork, are interrupted
#   soak      10,000 pictures with each maker
#   kills     programs on the host package that are killed in a burst, 200 with each maker
#   host      the host package's promises: cameras that go and come, closes, busy cameras, names,
#             mishaps, 10,000 pictures, the calls that each takes (its arguments: parts, --maker,
#             --count, --seed, --beside)
#   studio    eight stations with cameras and 92 simulated ones, with all that goes wrong at once; an
#             hour's events; 10,000 pictures (its arguments: parts, --seed)
#   page      long forms of the page's tests: 100 arrivals, a minute's sleep, 2,000 pictures
#   threads   all operations from four threads while events storm, under the thread sanitizer
#   fuzz      what cameras and driver modules send, made up by a fuzzer
#   mutants   defects put into the module, which the tests have to notice (not unless it is named)
#
# The arguments are those of the part's own program. The short form takes some minutes.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# What the parts take: in the long form, in the short one.
declare -A pictures=([long]=10000 [short]=500) sample=([long]=1 [short]=8)
declare -A hammered=([long]=600 [short]=10) fuzzed=([long]=600 [short]=12)

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
    parts=(matrix check hosts soak kills host studio page threads fuzz)
    # The others are among the tests.
    [[ $form == long ]] || parts=(matrix check soak host studio threads fuzz)
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
        check)
            find_python || return
            local short=()
            [[ $form == long ]] || short=(--short --sample 19)
            "$python" tests/stress/check_matrix.py "${short[@]}" "${@:2}"
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
        kills)
            find_python || return
            PYTHONPATH+=:$PWD/host LUMATIE_KILLS=200 "$python" -X dev -m unittest discover \
                -s tests/host -t tests/host -p test_killed.py "${@:2}"
            ;;
        host)
            find_python || return
            local short=()
            [[ $form == long ]] || short=(--short)
            "$python" tests/stress/host "${short[@]}" "${@:2}"
            ;;
        studio)
            scripts/build.sh linux || return
            need_packages mosquitto
            need_page_python
            local short=()
            [[ $form == long ]] || short=(--short)
            LUMATIE_BUILD_DIR=$PWD/build/linux PYTHONPATH=$PWD/build/linux/python \
                "$tools/page/bin/python" tests/stress/studio "${short[@]}" "${@:2}"
            ;;
        page)
            scripts/build.sh linux || return
            LUMATIE_PAGE_LONG=1 scripts/page.sh chrome "${@:2}"
            ;;
        threads) scripts/hammer.sh "${hammered[$form]}" "${@:2}" ;;
        fuzz) scripts/fuzz.sh "${fuzzed[$form]}" "${@:2}" ;;
        mutants) "$system_python" scripts/mutants.py "${@:2}" ;;
        *)
            usage_error \
                "./run stress [--short] [matrix|check|hosts|soak|kills|host|studio|page|threads|fuzz|mutants]..."
            ;;
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
