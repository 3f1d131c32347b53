#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Measures the module's cost for a connection: the CPU time of the process that serves it, with the
# module and without. The runs alternate, and the least of each counts. Updates docs/benchmarks.md.
# usage: scripts/bench-samba.sh [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

build=$PWD/build/release
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix tavrixctl tavrix-sweeper tavrix-sample-tree | tail -n 1
scripts/build-samba-module.sh "$build"

run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT
in_private_network_world "$PWD/scripts/lib/bench_samba_world.sh" "$PWD" "$build" "$run/results" "${1:-5}"
scripts/lib/bench_samba_table.py "$run/results" docs/benchmarks.md
