#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Installs what is missing, checks the sources, builds twice (optimised; with sanitizers) and runs
# every test in both, runs clang-tidy on the library, and one fuzz target for a moment.
# usage: scripts/test.sh [release|asan|tidy|fuzz|page|cluster]...   (default: all but page, which fetches
#        modules, and cluster, which takes ten minutes; each is a step of continuous
#        integration of its own)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
require_root

# The run has an IPC namespace of its own: the System V objects that it finds at the end are those
# that its tests left, whatever other programs make on this machine meanwhile.
if [ "${TAVRIX_IN_IPC_NAMESPACE:-}" != yes ]; then
  TAVRIX_IN_IPC_NAMESPACE=yes exec unshare --ipc scripts/test.sh "$@"
fi
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

parts=("$@")
[ ${#parts[@]} -gt 0 ] || parts=(release asan tidy fuzz)
run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT

configure() {  # PRESET
  cmake --preset "$1" >"$run/configure.log" 2>&1 || { cat "$run/configure.log" >&2; return 1; }
}

test_preset() {  # PRESET
  echo "== $1: build"
  configure "$1"
  cmake --build --preset "$1" | tail -n 3
  echo "== $1: test"
  ctest --preset "$1" -j "$(($(nproc) * 2))" --progress --output-on-failure
}

scripts/check.sh
for part in "${parts[@]}"; do
  case $part in
    release | asan) test_preset "$part" ;;
    tidy)
      echo "== clang-tidy"
      configure release
      scripts/tidy.sh
      ;;
    fuzz) scripts/fuzz.sh 5 map_verify ;;
    page)
      echo "== page"
      scripts/build-page.sh
      scripts/test-page.sh
      ;;
    cluster)
      echo "== cluster"
      configure release
      cmake --build --preset release | tail -n 3
      scripts/test-cluster.sh
      ;;
    *) echo "no part $part; there are: release asan tidy fuzz page cluster" >&2; exit 2 ;;
  esac
done

if ipcs | grep -q '^0x'; then
  echo "the tests left System V objects:" >&2
  ipcs >&2
  exit 1
fi
echo "all tests passed"
