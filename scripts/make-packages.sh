#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Makes the Debian packages libtavrix1, libtavrix-dev, tavrix-tools and samba-vfs-tavrix, the last one for
# the installed version of Samba.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}" dpkg-dev file

build=$PWD/build/packages
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DTAVRIX_SAMBA_VERSION="$(dpkg-query -W -f='${Version}' samba)" >/dev/null
cmake --build "$build" | tail -n 1
scripts/build-samba-module.sh "$build"
(cd "$build" && cpack >"$build/cpack.log" 2>&1) || { cat "$build/cpack.log"; exit 1; }
for package in "$build"/packages/*.deb; do
  dpkg-deb --field "$package" Package Version Depends | paste -sd' '
  dpkg-deb --contents "$package" | awk '$6 !~ /\/$/ { print "  " $6, $7, $8 }'
done
