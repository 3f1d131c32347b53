#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds fuzz targets with clang and lets each of them run for a while.
# usage: scripts/fuzz.sh [SECONDS] [TARGET]...   (default: 60 seconds, all targets)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
require_root
install_packages "${tavrix_packages[@]}"

seconds=${1:-60}
shift || true

build=build/fuzz
cmake --preset fuzz >/dev/null
mapfile -t known <$build/fuzz/targets.txt
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${known[@]}")
for target in "${targets[@]}"; do
  [[ " ${known[*]} " == *" $target "* ]] ||
    { echo "no fuzz target $target; there are: ${known[*]}" >&2; exit 2; }
done
cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}" | tail -n 1

# An assertion leaves an input early, and the memory that the input owned stays behind.
export ASAN_OPTIONS=detect_leaks=0
for target in "${targets[@]}"; do
  echo "== $target"
  # New inputs go to the build folder, and so does one that crashes; copy one worth keeping to
  # fuzz/corpus.
  mkdir -p "$build/corpus/$target"
  "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -max_len=8192 -detect_leaks=0 \
    -artifact_prefix="$build/$target-" -print_final_stats=1 \
    "$build/corpus/$target" "fuzz/corpus/$target" >"$build/$target.log" 2>&1 ||
    { cat "$build/$target.log" >&2; exit 1; }
  tail -n 8 "$build/$target.log"
done
