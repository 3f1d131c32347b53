#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Installs what is missing, builds, and shows what the system decides on a sample share, in a private
# world that leaves nothing behind.
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
