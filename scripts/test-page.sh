#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Tests the page in Cockpit: a real browser, a real console and the real tools, in a private world. It takes
# the pictures of docs/page.md too. It builds what is missing.
# usage: scripts/test-page.sh [BUILD FOLDER] [TEST]...   (default: build/release, all tests)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/world.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_page_packages[@]}"

build=${1:-build/release}
shift || true
[ -d page/dist ] && [ -d page/node_modules/axe-core ] || scripts/build-page.sh
if [ ! -x "$build/tools/tavrixctl" ]; then
  cmake --preset release >/dev/null
  cmake --build --preset release --target tavrixctl tavrix-loader tavrix-sample-tree tavrix-sweeper tavrix_history_sample | tail -n 1
fi

# Each session of the console leaves a bus and an agent: they end with their PID namespace.
export -f in_private_world in_private_network_world
unshare --pid --fork --kill-child --mount-proc bash -c 'in_private_network_world "$@"' test-page \
  "$PWD/tests/page/world.sh" "$PWD" "$(realpath "$build")/tools" "$@"
