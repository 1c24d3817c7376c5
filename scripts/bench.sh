#!/usr/bin/env bash
# bench.sh [--short] [--docs]: builds, then measures the module's roads beside their floors. The
# figures go into build/results/bench; with --docs also into docs/speed.md and docs/speed.svg.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

short=
docs=
for option in "$@"; do
    case $option in
        --short) short=yes ;;
        --docs) docs=yes ;;
        *) usage_error "./run bench [--short] [--docs]" ;;
    esac
done
[[ -z $short || -z $docs ]] || usage_error "./run bench [--short] [--docs], one of them"

need_packages libbenchmark-dev
[[ -z $docs ]] || need_packages python3-matplotlib
scripts/build.sh linux
cmake -S . -B build/linux -DLUMATIE_BENCH=ON --log-level=WARNING
cmake --build build/linux --target lumatie_bench --parallel "$(nproc)"

results=build/results/bench
pythons=$("$system_python" scripts/find_pythons.py --tested)
options=(--build build/linux --results "$results")
[[ -z $short ]] || options+=(--short)
[[ -z $docs ]] || options+=(--document docs/speed.md)

status=0
"${pythons%%$'\n'*}" -B bench/bench.py "${options[@]}" || status=$?
if [[ -n $docs && -f $results/results.json ]]; then
    "$system_python" -B bench/chart.py "$results/results.json" build/results/stress docs/speed.svg
fi
exit "$status"
