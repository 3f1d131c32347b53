#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Lets storms of kills, failing calls, power cuts and flipped bits loose on the real programs, in
# private worlds, and shows how they ended. Fails when an event or a map was lost untold.
# usage: scripts/storm.sh [kill|fault|power|flip|history|all] [--seed N] [--seconds N] [--sessions on|off|mixed]
#   --seconds: for each kind, 30 by default. The same seed makes the same choices; the moments of
#   kills and the order of processes are the machine's.
#   --sessions: who has a session, of the writers and deciders: mixed, every other one, by default.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh

kind=all
seed=1604
seconds=30
sessions=mixed
while [ $# -gt 0 ]; do
  case $1 in
    kill | fault | power | flip | history | all) kind=$1 ;;
    --seed) seed=${2:?--seed takes a number} && shift ;;
    --seconds) seconds=${2:?--seconds takes a number} && shift ;;
    --sessions)
      sessions=${2:?--sessions takes on, off or mixed} && shift
      [[ $sessions =~ ^(on|off|mixed)$ ]] || { echo "storm.sh: no such sessions: $sessions" >&2; exit 2; }
      ;;
    *) sed -n 's/^# usage: /usage: /p' "$0" >&2; exit 2 ;;
  esac
  shift
done
require_root
install_packages "${tavrix_packages[@]}"

[ -e build/release/build.ninja ] || cmake --preset release >/dev/null
cmake --build --preset release --target storms_test | tail -n 1
storms=build/release/tests/storms_test

# The tests of a kind share its time; each runs in a process of its own.
tests_of() {
  "$storms" --gtest_list_tests |
    awk -v kind="$1" '/^[^ ]/ { suite = $1 } /^ / && tolower(suite) ~ kind "storm\\.$" { print suite $1 }'
}

failed=0
for one in kill fault power flip history; do
  [ "$kind" = all ] || [ "$kind" = $one ] || continue
  mapfile -t tests < <(tests_of $one)
  for test in "${tests[@]}"; do
    log=$(mktemp)
    if TAVRIX_STORM_SEED=$seed TAVRIX_STORM_SESSIONS=$sessions TAVRIX_STORM_SECONDS=$((seconds / ${#tests[@]})) \
      "$storms" --gtest_filter="$test" >"$log" 2>&1; then
      sed -n 's/^storm //p' "$log"
    else
      failed=1
      cat "$log"
    fi
    rm -f "$log"
  done
done
exit $failed
