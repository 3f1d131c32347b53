#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs the whole appliance for a person to try. Installs missing packages, builds everything, and
# starts settings, loader, sweeper and a real smbd in a private world, with a sample tree and five
# users. Then it gives a tour with smbclient; with --shell, a shell in that world instead.
# usage: scripts/appliance.sh [--shell]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"

build=$PWD/build/demo
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" | tail -n 1
scripts/build-samba-module.sh "$build"

in_private_network_world "$PWD/scripts/lib/appliance_world.sh" "$PWD" "$build" "${1:-}"
