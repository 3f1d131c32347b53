#!/usr/bin/env bash
# Runs Samba's own suites against a plain share and against the same folder behind the module, as an
# administrator, and compares: what passes there must pass here, but for samba/torture-differences.txt.
# usage: scripts/smbtorture.sh [SUITE_FILTER]   (a grep -E pattern; default: smb2 and base)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

build=$PWD/build/release
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix tavrixctl tavrix-sweeper | tail -n 1
scripts/build-samba-module.sh "$build"

run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT
export -f in_private_world
unshare --net bash -c 'in_private_world "$@"' torture \
  "$PWD/scripts/lib/torture_world.sh" "$PWD" "$build" "$run" "${1:-^(smb2|base)\.}"
scripts/lib/torture_table.py "$run" samba/torture-differences.txt
