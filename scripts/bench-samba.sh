#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Measures what the module costs a real server, beside the same server without it. Updates the tables of
# docs/benchmarks.md; a run that is limited in some way only prints them. The peers are "hide unreadable", an
# audit by full_audit, and both.
# usage: scripts/bench-samba.sh [--rounds N] [--quick] [--counts] [--by-call] [--map NAME] [--operation NAME]...
#   --rounds N        runs of each kind, of which the least counts (5)
#   --counts          only the system calls of an operation, which do not depend on the machine's load, and
#                     without the peers
#   --crowds          only many clients at once
#   --by-call         lists them by name, too
#   --map NAME        only this one: small, or large with a million folders
#   --operation NAME  counts only this one: list, list-again, put, get, rename or delete
#   --quick           smaller folders, one round
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh

# The world's script reads these.
export bench_parts="costs counts crowds" bench_maps="small large" bench_operations="" bench_rounds=5
export bench_crowd_rounds=2 bench_crowd_passes=200
export bench_peers="messages hide audit both" bench_counted_peers="messages hide audit both"
export bench_entries=10000 bench_files=2000
document=(docs/benchmarks.md)
by_call=()

usage() {
  sed -n 's/^# \(usage: .*\)/\1/p; s/^#   /  /p' "$0" >&2
  exit 2
}

read_options() {
  while [ $# -gt 0 ]; do
    case $1 in
      --rounds) bench_rounds=${2:?} && shift ;;
      --quick)
        bench_rounds=1 bench_entries=2000 bench_files=200 bench_crowd_rounds=1 bench_crowd_passes=100
        bench_counted_peers="" document=()
        ;;
      --crowds) bench_parts=crowds document=() ;;
      --counts) bench_parts=counts bench_counted_peers="" document=() ;;
      --by-call) by_call=(--by-call) ;;
      --map) bench_maps=${2:?} document=() && shift ;;
      --operation) bench_operations+=" ${2:?}" document=() && shift ;;
      *) usage ;;
    esac
    shift
  done
  bench_operations=${bench_operations:-list list-again put get rename delete}
}

# The module takes a quarter of a minute to build.
module_is_current() {
  [ -e "$build/samba/tavrix.so" ] &&
    [ -z "$(find samba tools/notes include events/generated regex_parser scripts/build-samba-module.sh -type f \
      -newer "$build/samba/tavrix.so")" ]
}

read_options "$@"
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

build=$PWD/build/release
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix tavrixctl tavrix-sweeper tavrix-sample-tree | tail -n 1
module_is_current || scripts/build-samba-module.sh "$build"

run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT
in_private_network_world "$PWD/scripts/lib/bench_samba_world.sh" "$PWD" "$build" "$run"
for part in $bench_parts; do
  scripts/lib/bench_samba_table.py "$part" "$run/$part" "${by_call[@]}" "${document[@]}"
done
