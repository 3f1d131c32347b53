#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Installs missing packages, builds, and shows the system's decisions about a sample share. It runs in a
# private world and leaves nothing on the machine.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh
require_root
install_packages "${tavrix_packages[@]}"

build=$PWD/build/demo
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target tavrixctl tavrix-sweeper tavrix-sample-tree example-walkthrough | tail -n 1

in_private_world "$PWD/scripts/lib/demo_world.sh" "$PWD" "$build/tools:$build/examples"
