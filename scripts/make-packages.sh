#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Makes the Debian packages of debian/control, with the module for the installed version of Samba, and shows
# what is in them. It builds a copy of the sources, so that nothing of the working folder gets in.
# The packages are in build/packages/packages afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/samba_headers.sh
require_root
install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}" "${tavrix_debian_packages[@]}"

build=$PWD/build/packages
version=$(dpkg-parsechangelog -S Version)
upstream=libtavrix-${version%-*}
TAVRIX_SAMBA_HEADERS=$PWD/build/samba-headers
prepare_samba_headers "$TAVRIX_SAMBA_HEADERS"

# The files that git knows, or would take, as they are now.
copy_sources() {
  rm -rf "$build"
  mkdir -p "$build/packages"
  git ls-files -z --cached --others --exclude-standard |
    tar -c --null --files-from=- --ignore-failed-read --transform "s|^|$upstream/|" 2>/dev/null |
    tar -x -C "$build"
  tar -cJf "$build/libtavrix_${version%-*}.orig.tar.xz" -C "$build" --exclude="$upstream/debian" "$upstream"
}

# The package of the page is made of what scripts/build-page.sh has built, if it has.
with_page() {
  if [ ! -f page/dist/index.js ]; then
    echo "cockpit-tavrix is left out: scripts/build-page.sh makes the page beforehand" >&2
    return
  fi
  if [ -n "$(find page/src page/build.mjs page/package-lock.json -newer page/dist/index.js -print -quit)" ]; then
    echo "page/dist is older than its sources: run scripts/build-page.sh" >&2
    return 1
  fi
  export TAVRIX_PAGE=$PWD/page/dist DEB_BUILD_PROFILES="${DEB_BUILD_PROFILES:-} pkg.libtavrix.page"
}

# The helpers hide the home folder, so the compiler's cache is named here.
build_packages() {
  export TAVRIX_SAMBA_HEADERS
  CCACHE_DIR=$(ccache -k cache_dir)
  export CCACHE_DIR DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:-parallel=$(nproc) nocheck}"
  (cd "$build/$upstream" && dpkg-buildpackage -us -uc -sa) >"$build/build.log" 2>&1 || {
    tail -n 40 "$build/build.log" >&2
    return 1
  }
  mv "$build"/libtavrix_* "$build"/*.deb "$build/packages/"
}

copy_sources
with_page
build_packages
for package in "$build"/packages/*.deb; do
  case $package in *-dbgsym_*) continue ;; esac
  dpkg-deb --field "$package" Package Version Depends | paste -sd' '
  dpkg-deb --contents "$package" | awk '$6 !~ /\/$/ { print "  " $6, $7, $8 }'
done
