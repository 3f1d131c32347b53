#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Measures what grows with the servers and clients of a cluster: decisions, dump files, maps on their way,
# and a look at a node's health. docs/scale.md has the figures.
# usage: scripts/scale.sh [decisions | dumps | maps | health]...   (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh
require_root
install_packages "${tavrix_packages[@]}"

build=$PWD/build/release
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix_scale tavrixctl tavrix-sweeper tavrix-sample-tree | tail -n 1

[ $# -gt 0 ] || set -- decisions dumps maps health
nproc | sed 's/$/ processors/'
for part in "$@"; do
  case $part in
    health) in_private_world "$PWD/scripts/lib/health_world.sh" "$PWD" "$build" ;;
    *)
      program=$(mktemp)
      printf 'exec "%s/bench/tavrix_scale" "%s"\n' "$build" "$part" >"$program"
      in_private_world "$program"
      rm "$program"
      ;;
  esac
done
