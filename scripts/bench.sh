#!/usr/bin/env bash
# bench.sh [--short] [--chart]: builds, then measures the module's roads beside their floors. The
# figures go into build/results/bench; with --chart docs/speed.svg is drawn from them anew.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

short=
chart=
for option in "$@"; do
    case $option in
        --short) short=yes ;;
        --chart) chart=yes ;;
        *) usage_error "./run bench [--short] [--chart]" ;;
    esac
done
[[ -z $short || -z $chart ]] || usage_error "./run bench [--short] [--chart], one of them"

need_packages libbenchmark-dev mosquitto
scripts/page.sh install
[[ -z $chart ]] || need_packages python3-matplotlib
scripts/build.sh linux
cmake -S . -B build/linux -DLUMATIE_BENCH=ON --log-level=WARNING
cmake --build build/linux --target lumatie_bench --parallel "$(nproc)"

results=build/results/bench
pythons=$("$system_python" scripts/find_pythons.py --tested)
export LUMATIE_PAGE_PYTHON=$tools/page/bin/python
options=(--build build/linux --results "$results")
[[ -z $short ]] || options+=(--short)

status=0
"${pythons%%$'\n'*}" -B bench/bench.py "${options[@]}" || status=$?
if [[ -n $chart && -f $results/results.json ]]; then
    "$system_python" -B bench/chart.py "$results/results.json" build/results/stress docs/speed.svg
fi
exit "$status"
