#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs every benchmark beside its floor. Updates the table of ratios in docs/benchmarks.md, and the plot
# of a decision's growth next to it.
# usage: scripts/bench.sh [BENCHMARK_FILTER]   (with a filter, results are only printed)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh
require_root
install_packages "${tavrix_packages[@]}"

build=$PWD/build/release
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix_bench tavrix_hook_calls | tail -n 1

run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT
cat >"$run/in_world.sh" <<'SCRIPT'
"$1/bench/tavrix_bench" --benchmark_filter="$3" --benchmark_repetitions=3 \
  --benchmark_min_time=0.3 --benchmark_report_aggregates_only=true \
  --benchmark_out="$2/results.json" --benchmark_out_format=json
SCRIPT
cat >"$run/trace_in_world.sh" <<'SCRIPT'
strace -o "$2/calls.trace" "$1/bench/tavrix_hook_calls"
SCRIPT
in_private_world "$run/in_world.sh" "$build" "$run" "${1:-.}"
if [ $# -gt 0 ]; then
  scripts/lib/bench_table.py "$run/results.json"
else
  scripts/lib/bench_table.py "$run/results.json" docs/benchmarks.md "$run"
  in_private_world "$run/trace_in_world.sh" "$build" "$run"
  scripts/lib/hook_calls.py "$run/calls.trace" docs/benchmarks.md
  gnuplot -e "data='$run'; out='docs/decision_growth.svg'" scripts/lib/growth.gnuplot
fi
