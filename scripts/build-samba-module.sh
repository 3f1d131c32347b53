#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds the reference module against the installed Samba, without building Samba: the headers come
# from the source package of exactly the installed version, and the few that a build would generate
# are generated here. Takes a minute the first time and seconds after that.
# usage: scripts/build-samba-module.sh [BUILD_FOLDER]   (of libtavrix; default build/release)
# Leaves BUILD_FOLDER/samba/tavrix.so and tavrix_debug.so; the second checks identities after hooks.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/samba_headers.sh
require_root
install_packages "${tavrix_samba_packages[@]}"

build=$(realpath "${1:-build/release}")
headers=$PWD/build/samba-headers
prepare_samba_headers "$headers"

flags=(-shared -fPIC -O2 -g -fvisibility=hidden -std=gnu11 -Wall -Werror=implicit-function-declaration
  -Werror=incompatible-pointer-types -D_GNU_SOURCE=1 -D__STDC_WANT_LIB_EXT1__=1 -DHAVE_CONFIG_H=1
  -D_SAMBA_BUILD_=4)
includes=()
for folder in gen/include gen/source3 src/source3 src/source3/include src/source3/lib gen/lib src/lib \
  src/lib/replace src/include gen src gen/librpc src/librpc src/lib/talloc src/lib/tevent src/lib/tdb/include; do
  includes+=(-isystem "$headers/$folder")
done
mkdir -p "$build/samba"
# A build that goes to /usr finds the library there; others find it where it was built.
rpath=(-Wl,-rpath,"$build")
! grep -q '^CMAKE_INSTALL_PREFIX:PATH=/usr$' "$build/CMakeCache.txt" || rpath=()
build_module() {  # NAME [FLAG]...
  local name=$1
  shift
  # Under a name of its own first: a server that has the module open keeps the file it has.
  gcc "${flags[@]}" "$@" "${includes[@]}" -Iinclude -Ievents/generated -I. samba/*.c tools/notes/*.c -L"$build" -ltavrix \
    "${rpath[@]}" -o "$build/samba/.$name.new"
  mv "$build/samba/.$name.new" "$build/samba/$name.so"
}
build_module tavrix
# For the tests: each call that can fail is made to (see tests/samba/faulty_module.c).
faults=(-Wl)
for call in calloc malloc strdup realpath talloc_asprintf talloc_strdup _talloc_zero raise_permissions \
  vfs_add_fsp_extension_notype full_path_from_dirfsp_atname \
  tavrix_name_of tavrix_name_at tavrix_name_in_share tavrix_name_of_fd; do
  faults+=("--wrap=$call")
done
build_faulty() {
  local IFS=,
  build_module tavrix_faulty tests/samba/faulty_module.c "${faults[*]}" -DTAVRIX_CHECK_IDENTITY=1 \
    -DTAVRIX_MODULE_NAME='"tavrix_faulty"'
}
build_faulty
build_module tavrix_debug -DTAVRIX_CHECK_IDENTITY=1 -DTAVRIX_MODULE_NAME='"tavrix_debug"'
