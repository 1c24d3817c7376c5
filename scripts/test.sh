#!/usr/bin/env bash
# test.sh [windows|windows-long|asan|tsan|wheels|wheels-long]: builds, runs every test runner to its
# end, and fails when one of them did; a few failed tests are run once more, alone. windows-long is all of the page's and the studio's tests there;
# wheels-long is what takes a network, and another compilation.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

variant=${1:-} results=
case $#$variant in
    0) tree=linux ;;
    1windows) tree=windows ;;
    1windows-long) tree=windows results=windows-long ;;
    1asan | 1tsan) tree=linux-$variant ;;
    1wheels | 1wheels-long) tree=$variant ;;
    *) usage_error "./run test [windows|windows-long|asan|tsan|wheels|wheels-long]" ;;
esac
readonly results=$PWD/build/results/${results:-$tree}
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

# start NAME COMMAND...: starts a test runner, whose output is kept, and so is what starts it once more.
# One that hangs is aborted, so that it can say where it was.
start() {
    local name=$1
    shift
    { declare -px && printf 'exec' && printf ' %q' "$@" && printf ' "$@"\n'; } >"$results/$name.command"
    : >"$results/$name.log"
    timeout --signal=ABRT --kill-after=20 1500 "$@" >"$results/$name.log" 2>&1 </dev/null &
    runners[$name]=$!
}

# finish NAME...: shows the output of runners that were started, but for what names each test that
# passes, and keeps their exit status.
finish() {
    local name status
    for name in "$@"; do
        note "$tree: $name"
        # No pipe from the runner: a process that outlives its runner would hold it open.
        tail --lines=+1 --follow --sleep-interval=0.1 --pid="${runners[$name]}" "$results/$name.log" |
            sed --unbuffered '/^\[\(-----\| RUN  \|       OK\)/d'
        status=0
        wait "${runners[$name]}" || status=$?
        echo "$status" >"$results/$name.status"
    done
}

# run_again: runs the few tests that failed once more, with nothing beside them.
run_again() {
    local name arguments
    while IFS=$'\t' read -r name arguments; do
        IFS=$'\t' read -ra arguments <<<"$arguments"
        start "$name.again" bash "$results/$name.command" "${arguments[@]}"
        finish "$name.again"
    done < <("$system_python" scripts/again.py "$results")
}

# run_cpp_tests [COMMAND...]: starts the test programs, with that command. All tests of a program share
# a process: one takes longer to start than most tests, most of all under Wine or with a sanitizer.
run_cpp_tests() {
    local program programs names=()
    mapfile -t programs < <(find "build/$tree/tests" -name '*_test*' -type f -executable | sort)
    ((${#programs[@]})) || fail "no C++ tests in build/$tree"
    for program in "${programs[@]}"; do
        names+=("cpp-$(basename "$program" .exe)")
        start "${names[-1]}" "$@" "$program"
    done
    finish "${names[@]}"
}

# suite NAME FOLDER FILES PYTHON [OPTION...]: starts the tests of a folder in tests/ whose files match
# a pattern; the options replace "-X dev".
suite() {
    local options=(-X dev)
    (($# == 4)) || options=("${@:5}")
    start "$1" "$4" "${options[@]}" -m unittest discover --verbose -s "tests/$2" -t "tests/$2" -p "$3"
}

# install_wheels: puts the wheels of what was built in a folder for each interpreter that gets the whole
# suite. It runs there with what users install, in place of the tree's folders.
install_wheels() {
    local python tags=()
    need_wheel_tools
    for python in "${tested[@]}"; do
        tags+=("$(tag "$python")")
    done
    cmake --build "build/$tree" --target wheel >/dev/null
    "$tools/wheels/bin/python" scripts/wheels.py "$tree" --into "build/$tree/wheels" \
        --only "${tags[@]}" --install "build/$tree/installed"
    if [[ $tree == windows ]]; then
        compile_for_windows "build/$tree/installed"
    fi
}

# use_wheels PYTHON: what is started from now on finds what was installed for that interpreter.
use_wheels() {
    local tests=$PWD/tests/python separator=:
    LUMATIE_INSTALLED=$PWD/build/$tree/installed/$(tag "$1")
    if [[ $tree == windows ]]; then
        LUMATIE_INSTALLED=$(windows_path "$LUMATIE_INSTALLED")
        tests=$(windows_path "$tests")
        separator=';'
    fi
    export LUMATIE_INSTALLED PYTHONPATH=$LUMATIE_INSTALLED$separator$tests
}

# use_tree: what is started from now on finds what is in the build tree.
use_tree() {
    unset LUMATIE_INSTALLED
    export PYTHONPATH=$tree_path
}

# The interpreters that the module was built for, and those of them that the whole suite runs under.
declare -a pythons=() tested=()

# The module's and the host package's tests, as suites that run side by side: they wait more than
# they work.
readonly -A module_parts=([module]='test_[!a-dn]*.py' [module-d]='test_[a-d]*.py' [nikon]='test_n*.py')
readonly -A host_parts=([host]='test_[!cs]*.py' [host-c]='test_c[!l]*.py' [host-cli]='test_cl*.py'
    [host-s]='test_s*.py')

find_pythons() {
    mapfile -t pythons < <("$system_python" scripts/find_pythons.py)
    mapfile -t tested < <("$system_python" scripts/find_pythons.py --tested)
    tree_path=$PWD/build/linux/python:$PWD/tests/python:$PWD/host
    use_tree
    # Each way to end a program; `./run stress hosts` takes more.
    export LUMATIE_EXIT_REPEATS=${LUMATIE_EXIT_REPEATS:-4}
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
    export LUMATIE_KILLS=${LUMATIE_KILLS:-2}
    export LUMATIE_BUILD_DIR
    LUMATIE_BUILD_DIR=$(windows_path "$PWD/build/windows")
    tree_path="$LUMATIE_BUILD_DIR\\python;$(windows_path "$PWD/tests/python")"
    tree_path+=";$(windows_path "$PWD/host")"
    use_tree
}

run_python_tests() {
    local python name part names=()
    for python in "${pythons[@]}"; do
        name=$(label "$python")-import
        start "$name" "$python" -X dev scripts/smoke_test.py
        finish "$name"
    done
    install_wheels
    # They wait more than they work, so all of this runs at the same time.
    for python in "${tested[@]}"; do
        use_wheels "$python"
        name=$(label "$python")
        for part in "${!module_parts[@]}"; do
            suite "$name-$part" python "${module_parts[$part]}" "$python"
            names+=("$name-$part")
        done
        for part in "${!host_parts[@]}"; do
            suite "$name-$part" host "${host_parts[$part]}" "$python"
            names+=("$name-$part")
        done
    done
    finish "${names[@]}"
    names=()
    # Processes start slowly here, and the check's report holds libraries to times. Of page and studio
    # what touches the system: serving, tokens; broker, clock, collector, commands, words.
    if [[ $tree == windows ]]; then
        start_windows_page page='test_[st]*.py' studio='test_[bcw][lor]*.py'
        start_check "$name-check" "$python"
        names=(page studio "$name-check" "$name-check-process")
    fi
    # With a module that is made for these tests, and in no wheel; they share its settings.
    use_tree
    for python in "${tested[@]}"; do
        name=$(label "$python")-log
        suite "$name" python/alone test_debug_log.py "$python"
        finish "$name"
    done
    finish "${names[@]}"
    names=()
    for python in "${tested[@]}"; do
        use_wheels "$python"
        names+=("$(label "$python")-limits")
        suite "${names[-1]}" python/alone test_limits.py "$python"
    done
    finish "${names[@]}"
}

# start_check NAME PYTHON: starts the tests of the word check.
start_check() {
    suite "$1" host/check 'test_check_[!p]*.py' "$2"
    suite "$1-process" host/check 'test_check_p*.py' "$2"
}

# What a tool makes up is fed to the host package, on the system's interpreter, beside other suites.
start_property_tests() {
    need_python_tool hypothesis
    HYPOTHESIS_STORAGE_DIRECTORY=build/hypothesis \
        suite properties host/properties 'test_*.py' "$tools/hypothesis/bin/python"
}

# The page in Debian's browsers, beside other suites.
start_browsers() {
    local engine
    scripts/page.sh install
    use_tree
    for engine in chrome firefox; do
        start "page-$engine" scripts/page.sh "$engine"
    done
}

# The parts of the host package that have libraries or programs of their own, on the system's
# interpreter, with what its wheel installs.
run_outer_tests() {
    local python=$tools/page/bin/python
    need_page_python
    need_packages mosquitto openssl
    use_wheels "$python"
    suite page host/page 'test_[af]*.py' "$python"
    suite page-2 host/page 'test_[!af]*.py' "$python"
    suite studio host/studio 'test_[!s]*.py' "$python"
    suite studio-2 host/studio 'test_s*.py' "$python"
    start_check check "$python"
    finish page page-2 studio studio-2 check check-process
}

# start_windows_page SUITE=FILES...: starts tests of the page and the studio in the Windows
# interpreter; the broker is the Linux machine's. Not with "-X dev": asyncio looks at source files for
# each call then, and a look takes Wine so long that bounds of time are missed.
start_windows_page() {
    local -x PYTHONUSERBASE
    local part name
    need_windows_page
    need_packages mosquitto openssl
    PYTHONUSERBASE=$(windows_path "$windows_page")
    for part in "$@"; do
        name=${part%%=*}
        suite "$name" "host/${name%-*}" "${part#*=}" scripts/windows_python.sh -W default
    done
}

# The wheels, in environments that have nothing else, and what is in them.
run_wheel_tests() {
    local python=$tools/wheels/bin/python
    need_packages python3-venv
    need_python_tool stubtest
    need_page_python
    suite contents packaging 'test_[bc]*.py' "$python"
    suite installing packaging 'test_i*.py' "$python"
    suite windows packaging 'test_w*.py' "$python"
    finish contents installing windows
}

tag() { "$1" -c 'import sys; print("cp%d%d" % sys.version_info[:2], end="")'; }
label() { "$1" -c 'import sys; print("python%d.%d" % sys.version_info[:2], end="")'; }

case $variant in
    wheels | wheels-long) scripts/wheels.sh ;;
    *) scripts/build.sh "$tree" ;;
esac
case $variant in
    '')
        run_cpp_tests
        find_pythons
        start_property_tests
        run_python_tests
        finish properties
        start_browsers
        run_outer_tests
        finish page-chrome page-firefox
        ;;
    windows)
        scripts/wine.sh --keep
        trap 'stop_runners; scripts/wine.sh --stop' EXIT
        run_cpp_tests scripts/wine.sh
        find_windows_python
        run_python_tests
        ;;
    windows-long)
        scripts/wine.sh --keep
        trap 'stop_runners; scripts/wine.sh --stop' EXIT
        find_windows_python
        install_wheels
        use_wheels "${tested[0]}"
        start_windows_page page='test_[!f]*.py' page-2='test_f*.py' \
            studio='test_[!s]*.py' studio-2='test_s*.py'
        finish page page-2 studio studio-2
        ;;
    wheels)
        scripts/wine.sh --keep
        trap 'stop_runners; scripts/wine.sh --stop' EXIT
        run_wheel_tests
        ;;
    wheels-long)
        suite page packaging/long 'test_p*.py' "$tools/wheels/bin/python"
        finish page
        # Both compile: each in its own time.
        suite sources packaging/long 'test_s*.py' "$tools/wheels/bin/python"
        suite twice packaging/long 'test_t*.py' "$tools/wheels/bin/python"
        finish sources twice
        ;;
    *)
        set_up_sanitizers "$variant"
        run_cpp_tests "${sanitized[@]}"
        ;;
esac
run_again
"$system_python" scripts/totals.py "$results"
