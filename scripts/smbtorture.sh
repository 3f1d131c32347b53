#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds the module and runs Samba's own suites against it, as an administrator. A test that passes on a
# plain share must pass behind the module. Some suites wait for minutes.
# usage: scripts/smbtorture.sh [SUITE_FILTER]   (a grep -E pattern; default: smb2 and base)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

build=$PWD/build/release
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix tavrixctl tavrix-sweeper | tail -n 1
scripts/build-samba-module.sh "$build"
scripts/lib/torture.sh "$build" "${1:-^(smb2|base)\.}"
