#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds the reference module for the installed Samba, without building Samba. The headers come from the
# source package of exactly the installed version; scripts/lib/samba_headers.sh generates the few that a
# build of Samba would. This takes a minute the first time and seconds after that.
# usage: scripts/build-samba-module.sh [--only-module] [BUILD_FOLDER]   (of libtavrix; default build/release)
# Makes in BUILD_FOLDER/samba: tavrix.so; tavrix_debug.so, which checks the process's identity after each
# function; and tavrix_faulty.so, in which a test can make calls fail. With --only-module it makes tavrix.so
# alone, with the flags in CPPFLAGS, CFLAGS and LDFLAGS; TAVRIX_SAMBA_HEADERS names the folder of the headers
# when another script has made them.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/samba_headers.sh
only_module=
if [ "${1:-}" = --only-module ]; then
  only_module=yes
  shift
else
  require_root
  install_packages "${tavrix_samba_packages[@]}"
fi

build=$(realpath "${1:-build/release}")
headers=${TAVRIX_SAMBA_HEADERS:-$PWD/build/samba-headers}
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
# A module that will be installed in /usr finds the library there. Others need the build folder's path.
rpath=(-Wl,-rpath,"$build")
! grep -qE '^CMAKE_INSTALL_PREFIX:[A-Z]+=/usr$' "$build/CMakeCache.txt" || rpath=()
package_flags=()
[ -z "$only_module" ] || read -ra package_flags <<<"${CPPFLAGS:-} ${CFLAGS:-} ${LDFLAGS:-}"
build_module() {  # NAME [FLAG]...
  local name=$1
  shift
  # Link under another name and rename: a running server keeps the file that it has loaded.
  gcc "${flags[@]}" "${package_flags[@]}" "$@" "${includes[@]}" -Iinclude -Ievents/generated -I. samba/*.c tools/notes/*.c -L"$build" -ltavrix \
    "${rpath[@]}" -o "$build/samba/.$name.new"
  mv "$build/samba/.$name.new" "$build/samba/$name.so"
}
build_module tavrix
[ -z "$only_module" ] || exit 0
# Tests make each of these calls fail, one after another (tests/samba/faulty_module.c).
faults=(-Wl)
for call in calloc malloc strdup realpath talloc_asprintf talloc_strdup _talloc_zero setresuid \
  vfs_add_fsp_extension_notype full_path_from_dirfsp_atname \
  tavrix_name_of tavrix_name_at tavrix_name_in_share tavrix_name_of_fd tavrix_session_begin \
  _tevent_add_timer; do
  faults+=("--wrap=$call")
done
build_faulty() {
  local IFS=,
  build_module tavrix_faulty tests/samba/faulty_module.c "${faults[*]}" -DTAVRIX_CHECK_IDENTITY=1 \
    -DTAVRIX_MODULE_NAME='"tavrix_faulty"'
}
build_faulty
build_module tavrix_debug -DTAVRIX_CHECK_IDENTITY=1 -DTAVRIX_MODULE_NAME='"tavrix_debug"'
