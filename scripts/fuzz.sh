#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds the fuzz targets with clang and lets each of them run for a while.
# usage: scripts/fuzz.sh [SECONDS] [TARGET]...
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
require_root
install_packages "${tavrix_packages[@]}"

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(normalize_path data_file size_file map_verify map_lint group_map
  dump_file pattern_file event_record)

# Assertions leave an input early, and what it owned behind.
export ASAN_OPTIONS=detect_leaks=0

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}" | tail -n 1
for target in "${targets[@]}"; do
  echo "== $target"
  # What is found goes to a folder of the build; a crash worth keeping is copied to the corpus.
  mkdir -p "build/fuzz/corpus/$target"
  "build/fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -max_len=8192 -detect_leaks=0 \
    -artifact_prefix="build/fuzz/$target-" -print_final_stats=1 \
    "build/fuzz/corpus/$target" "fuzz/corpus/$target" 2>&1 | tail -n 12
done
