#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Records this build's ABI as the reference that the tests compare with. Run it only for an intended
# change of the ABI, and let the commit say why.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix | tail -n 1
abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs \
  build/release/libtavrix.so >tests/abi/libtavrix.abi
