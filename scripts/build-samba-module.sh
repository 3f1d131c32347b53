#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds the reference module, without building Samba: for the installed Samba, or for that of another root
# (scripts/lib/samba_root.sh). The headers come from the source package of exactly that version;
# scripts/lib/samba_headers.sh generates the few that a build of Samba would. This takes a minute the first
# time and seconds after that.
# usage: scripts/build-samba-module.sh [OPTION]... [BUILD_FOLDER]   (of libtavrix; default build/release)
#   --root ROOT     build for the Samba of ROOT, which is the absolute path of a folder
#   --output DIR    the folder of the modules; default BUILD_FOLDER/samba
#   --only-module   make tavrix.so alone, with the flags in CPPFLAGS, CFLAGS and LDFLAGS
#   --range         build nothing; print the packages that the module works with, as Debian's Depends
# TAVRIX_SAMBA_HEADERS names the folder of the headers when another script has made them.
# Makes tavrix.so; tavrix_debug.so, which checks the process's identity after each function;
# tavrix_faulty.so, in which a test can make calls fail; and three modules that the server must refuse.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/samba_headers.sh

root='' output='' only_module='' range=''
while [ $# -gt 0 ]; do
  case $1 in
    --root) root=$2; shift ;;
    --output) output=$2; shift ;;
    --only-module) only_module=yes ;;
    --range) range=yes ;;
    *) break ;;
  esac
  shift
done

version=$(samba_version "$root")
if [ -n "$range" ]; then
  samba_package_range "$version"
  exit 0
fi
if [ -z "$only_module" ]; then
  require_root
  install_packages "${tavrix_samba_packages[@]}"
fi
build=$(realpath "${1:-build/release}")
output=${output:-$build/samba}
series=$(samba_series_of "$version")
headers=${TAVRIX_SAMBA_HEADERS:-$PWD/build/samba-headers${root:+-$series}}
prepare_samba_headers "$headers" "$root"

compiler=(gcc)
! command -v ccache >/dev/null || compiler=(ccache gcc)
flags=(-fPIC -O2 -g -fvisibility=hidden -std=gnu11 -Wall -Werror=implicit-function-declaration
  -Werror=incompatible-pointer-types -D_GNU_SOURCE=1 -D__STDC_WANT_LIB_EXT1__=1 -DHAVE_CONFIG_H=1
  -D_SAMBA_BUILD_=4 "-DTAVRIX_SAMBA_SERIES=\"$series\"")
for folder in gen/include gen/source3 src/source3 src/source3/include src/source3/lib gen/lib src/lib \
  src/lib/replace src/include gen src gen/librpc src/librpc src/lib/talloc src/lib/tevent src/lib/tdb/include; do
  flags+=(-isystem "$headers/$folder")
done
flags+=(-Iinclude -Ievents/generated -I.)
# A module that will be installed in /usr finds the library there. Others need the build folder's path.
link=(-shared -L"$build" -Wl,-rpath,"$build")
! grep -qE '^CMAKE_INSTALL_PREFIX:[A-Z]+=/usr$' "$build/CMakeCache.txt" || link=(-shared -L"$build")
if [ -n "$only_module" ]; then
  read -ra package_flags <<<"${CPPFLAGS:-} ${CFLAGS:-}"
  flags+=("${package_flags[@]}")
  read -ra package_flags <<<"${LDFLAGS:-}"
  link+=("${package_flags[@]}")
fi
objects=$(mktemp -d)
trap 'rm -rf "$objects"' EXIT

# usage: link_module OUTPUT [FLAG]...   (of the objects)
link_module() {
  local file=$1
  shift
  find "$objects" -name '*.o' -print0 | sort -z |
    xargs -0 sh -c 'file=$1; shift; exec gcc "$@" -ltavrix -o "$file"' link_module "$file" "${link[@]}" "$@"
}

# The names that a linked module takes from the server: the C library and libtavrix give theirs a version.
names_of_server() { nm -D -u "$1" | awk '$1 == "U" && $2 !~ /@/ {print $2}'; }

# Makes the module's references to the server's names weak, and a table of them (samba/private_symbols.h).
# usage: weaken FILE_OF_NAMES
weaken() {
  find "$objects" -name '*.o' -exec objcopy --weaken-symbols="$1" {} \;
  {
    echo '#include "samba/private_symbols.h"'
    sed 's/.*/extern const char &[] __attribute__((weak));/' "$1"
    echo 'const struct tavrix_private_symbol tavrix_private_symbols[] = {'
    sed 's/.*/    {"&", &},/' "$1"
    echo '    {0, 0}};'
  } >"$objects/private_symbols.c"
  gcc "${flags[@]}" "-ffile-prefix-map=$objects=." -c "$objects/private_symbols.c" -o "$objects/private_symbols.o"
}

mkdir -p "$output"
# usage: build_module NAME [SOURCE]... [COMPILER_FLAG]... [-Wl,LINKER_FLAGS]
build_module() {
  local name=$1 sources=(samba/*.c tools/notes/*.c) compile=() linker=() word
  shift
  for word in "$@"; do
    case $word in
      *.c) sources+=("$word") ;;
      -Wl,*) linker+=("$word") ;;
      *) compile+=("$word") ;;
    esac
  done
  rm -rf "${objects:?}"/*
  mkdir -p "$objects"/{samba,tools/notes,tests/samba}
  printf '%s\n' "${sources[@]}" | xargs -P "$(nproc)" -I@ \
    "${compiler[@]}" "${flags[@]}" "${compile[@]}" "-DTAVRIX_MODULE_NAME=\"$name\"" -c @ -o "$objects/@.o"
  # The first link has no table yet, and is only asked for its names.
  echo 'const char tavrix_private_symbols[1] = {0};' | gcc -fPIC -x c -c - -o "$objects/private_symbols.o"
  link_module "$objects/asked.so" "${linker[@]}"
  names_of_server "$objects/asked.so" >"$objects/names"
  weaken "$objects/names"
  # Link under another name and rename: a running server keeps the file that it has loaded.
  link_module "$output/.$name.new" "${linker[@]}"
  mv "$output/.$name.new" "$output/$name.so"
}
build_module tavrix
[ -z "$only_module" ] || exit 0
# Tests make each of these calls fail, one after another (tests/samba/faulty_module.c).
faults=-Wl
for call in calloc malloc strdup realpath talloc_asprintf talloc_strdup _talloc_zero setresuid \
  vfs_add_fsp_extension_notype full_path_from_dirfsp_atname \
  tavrix_name_of tavrix_name_at tavrix_name_in_share tavrix_name_of_fd tavrix_session_begin \
  _tevent_add_timer; do
  faults+=,--wrap=$call
done
build_module tavrix_faulty tests/samba/faulty_module.c "$faults" -DTAVRIX_CHECK_IDENTITY=1
build_module tavrix_debug -DTAVRIX_CHECK_IDENTITY=1
# For a server of another interface or series, or with another private name (tests/samba/server_test.cpp).
build_module tavrix_of_interface -DTAVRIX_INTERFACE_VERSION=1
build_module tavrix_of_series -UTAVRIX_SAMBA_SERIES '-DTAVRIX_SAMBA_SERIES="3.6"'
build_module tavrix_of_names tests/samba/missing_name.c
