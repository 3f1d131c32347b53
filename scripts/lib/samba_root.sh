# SPDX-License-Identifier: LGPL-3.0-or-later
# A Samba of another series beside the installed one. Its root is a folder with the packages of that series
# and of what they need in newer versions, unpacked; in_samba_root lays it over this machine's /usr, for one
# command. The machine's own packages stay as they are. Source it.

# usage: samba_version [ROOT]   (the version of Debian's package: in ROOT, or installed)
samba_version() {
  if [ -n "${1:-}" ]; then cat "$1/version"; else dpkg-query -W -f='${Version}' samba; fi
}

# usage: samba_series_of VERSION   ("4.17" of "2:4.17.12+dfsg-0+deb12u4")
samba_series_of() { sed -E 's/^([0-9]+:)?([0-9]+\.[0-9]+).*/\2/' <<<"$1"; }

# usage: samba_package_range VERSION   (the packages that a module for that version works with)
samba_package_range() {
  local series epoch=
  series=$(samba_series_of "$1")
  case $1 in *:*) epoch=${1%%:*}: ;; esac
  echo "samba (>= $epoch$series), samba (<< $epoch${series%.*}.$((${series#*.} + 1))~)"
}

# Writes source lists to parts/, from the mirrors of Debian that this machine's own lists name, and from
# those the backports too. The machine's lists stay as they are.
write_source_lists() {
  mkdir -p parts
  local codename file
  codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
  for file in /etc/apt/sources.list.d/*.sources; do
    [ -e "$file" ] || continue
    # The paragraphs that name Debian. Empty lines separate paragraphs, and comments do not.
    grep -v '^#' "$file" | awk -v RS= -v ORS='\n\n' '/URIs:[^\n]*debian/' |
      sed -E "s/^Types:.*/Types: deb deb-src/
        /^Suites:/s/( |:)$codename( |\$)/\1$codename $codename-backports\2/" >"parts/$(basename "$file")"
  done
  cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null |
    sed -n "/^deb .*debian/{p;s/^deb /deb-src /p;}" >parts/lists.list || true
  sed -n "/ $codename /s/ $codename / $codename-backports /p" parts/lists.list >parts/backports.list
  [ -z "$(cat parts/*)" ] || return 0
  echo "this machine has no list of Debian's packages to take samba from" >&2
  return 1
}

# Runs a tool of apt with the lists of parts/ and state of its own in apt/, in the present folder.
apt_here() {
  local tool=$1
  shift
  "$tool" -o Dir::Etc::sourcelist=/dev/null -o "Dir::Etc::sourceparts=$PWD/parts" \
    -o "Dir::State::lists=$PWD/apt/lists" -o "Dir::Cache=$PWD/apt" -o APT::Sandbox::User=root "$@"
}

update_apt_here() {
  write_source_lists || return 1
  mkdir -p apt/lists/partial apt/archives/partial
  apt_here apt-get update -q >/dev/null
}

# usage: newest_samba_of SERIES   (after update_apt_here)
newest_samba_of() {
  local version
  apt_here apt-cache madison samba | awk -F' *[|] *' '$3 ~ /Packages$/ {print $2}' | while read -r version; do
    [ "$(samba_series_of "$version")" != "$1" ] || echo "$version"
  done | sort -rV | head -n 1
}

# Makes the root of a series; does nothing when it is there.
# usage: make_samba_root SERIES FOLDER
make_samba_root() {
  local series=$1 folder=$2 version
  [ ! -e "$folder/version" ] || return 0
  rm -rf "$folder"
  mkdir -p "$folder/usr"
  (
    cd "$folder"
    update_apt_here
    version=$(newest_samba_of "$series")
    if [ -z "$version" ]; then
      echo "the archive has no samba of series $series" >&2
      rm -rf "$folder"
      exit 1
    fi
    echo "unpacking samba $version"
    local packages=() package
    for package in samba samba-common samba-common-bin samba-libs samba-vfs-modules smbclient samba-testsuite; do
      packages+=("$package=$version")
    done
    # Newer packages that these need come from their own release; apt counts what is installed as there.
    apt_here apt-get -q -y --download-only --no-install-recommends \
      -t "$(. /etc/os-release && echo "$VERSION_CODENAME")-backports" install "${packages[@]}" >/dev/null
    for package in apt/archives/*.deb; do dpkg-deb -x "$package" .; done
    rm -rf apt parts
    echo "$version" >version
  )
}

# Runs a command in a mount namespace whose Samba is that of ROOT, or the installed one without ROOT.
# usage: in_samba_root ROOT COMMAND...   (the absolute path of a root, or "")
in_samba_root() {
  local root=$1
  shift
  if [ -z "$root" ]; then "$@" && return 0 || return $?; fi
  # Samba's own folder is replaced as a whole: a private library of the other series must not be found.
  unshare --mount bash -euo pipefail -c '
    root=$1
    private=/usr/lib/x86_64-linux-gnu/samba
    shift
    mount --make-rprivate /
    mount -t overlay overlay -o "lowerdir=$root/usr:/usr" /usr
    mount --bind "$root$private" "$private"
    exec "$@"' in_samba_root "$root" "$@"
}
