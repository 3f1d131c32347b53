#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds the module for another series of Samba than the installed one, from Debian's archive, and runs the
# quick tests of tests/samba against that server. The machine keeps its own Samba: the other one is laid over
# /usr for the tests alone. The first run unpacks 60 MB into build/. Exit code 1: a test failed.
# usage: scripts/test-samba.sh SERIES [TEST_FILTER]   (such as 4.22; a regular expression, default "^samba\.")
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# -lt 1 ]; then
  sed -n 's/^# usage/usage/p' "$0" >&2
  exit 2
fi
series=$1
filter=${2:-^samba\\.}
source scripts/lib/packages.sh
source scripts/lib/samba_root.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

build=$PWD/build/release
root=
if [ "$(samba_series_of "$(samba_version)")" != "$series" ]; then
  root=$PWD/build/samba-root-$series
  make_samba_root "$series" "$root"
fi
cmake --preset release -DTAVRIX_SAMBA=ON >/dev/null
cmake --build --preset release | tail -n 1
modules=$build/samba
if [ -n "$root" ]; then
  modules=$build/samba-$series
  scripts/build-samba-module.sh --root "$root" --output "$modules" "$build"
  # The server must refuse the module for the installed Samba: a test tries it.
  cp "$build/samba/tavrix.so" "$modules/tavrix_of_series.so"
fi

# The slow ones repeat what the others show, and the bounds of call counts are measured with one series.
slow='\.(OfSambasOwn/Torture|With/Storm|Measurements|Operations/CallCounts)\.'
table=$build/samba-tests-$series.txt
status=0
in_samba_root "$root" unshare --mount --propagation private bash -euo pipefail -c '
  [ "$1" = "$2/samba" ] || mount --bind "$1" "$2/samba"
  smbd -V
  exec ctest --test-dir "$2" -R "$3" -E "$4" -j"$(nproc)" --output-on-failure' \
  test_samba "$modules" "$build" "$filter" "$slow" >"$table" || status=1

# One line a suite: its tests, and those that failed.
awk -v samba="$(samba_version "$root")" '
  / Test +#[0-9]+: samba\./ {
    suite = $0
    sub(/.*: samba\./, "", suite)
    sub(/\.[^.]*$/, "", suite)
    sub(/\..*/, "", suite)
    tests[suite]++
    all++
    if (!/ Passed /) { failed[suite]++; none = 0; bad++ }
  }
  END {
    printf "Samba %s\n%-28s %6s %7s\n", samba, "suite", "tests", "failed"
    for (suite in tests) printf "%-28s %6d %7d\n", suite, tests[suite], failed[suite] | "sort"
    close("sort")
    printf "%-28s %6d %7d\n", "all", all, bad
  }' "$table"
[ "$status" -eq 0 ] || grep -A40 '\*\*\*Failed' "$table" >&2
exit "$status"
