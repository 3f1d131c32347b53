#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Records this build's ABI as the reference that the tests compare with, and its new names for the package. Run
# it only for an intended change of the ABI, and let the commit say why.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target tavrix | tail -n 1
abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs \
  build/release/libtavrix.so >tests/abi/libtavrix.abi
dpkg-gensymbols -plibtavrix1 -v"$(dpkg-parsechangelog -S Version | sed 's/-[^-]*$//')" \
  -ebuild/release/libtavrix.so.1 -Odebian/libtavrix1.symbols >/dev/null
