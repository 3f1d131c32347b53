#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Installs what is missing, builds twice (optimised; with sanitizers) and runs every test in both.
# usage: scripts/test.sh [release|asan]...
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan)

scripts/check.sh

objects_before=$(ipcs -a | md5sum)
for preset in "${presets[@]}"; do
  echo "== $preset: build"
  cmake --preset "$preset" >"/tmp/tavrix-configure-$preset.log" 2>&1 ||
    { cat "/tmp/tavrix-configure-$preset.log"; exit 1; }
  cmake --build --preset "$preset" | tail -n 3
  echo "== $preset: test"
  ctest --preset "$preset" -j "$(($(nproc) * 2))" --progress --output-on-failure
done

if [ "$(ipcs -a | md5sum)" != "$objects_before" ]; then
  echo "the tests left System V objects on this machine:" >&2
  ipcs -a >&2
  exit 1
fi
echo "all tests passed"
