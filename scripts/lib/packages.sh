# SPDX-License-Identifier: LGPL-3.0-or-later
# Installs the missing ones of the Debian packages that building and testing need. Source it as root.

tavrix_packages=(
  build-essential cmake ninja-build ccache pkg-config git python3
  libyajl-dev libprotobuf-c-dev protobuf-c-compiler
  libcli11-dev libfmt-dev nlohmann-json3-dev libiniparser-dev libsystemd-dev libssl-dev libsqlite3-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev liblmdb-dev
  clang libclang-rt-dev clang-format clang-tidy
  samba-libs systemd util-linux procps strace mandoc gnuplot-nox abigail-tools python3-jsonschema
  python3-prometheus-client bash-completion zsh fish
)

# Packages that only the reference module and a real server with it need.
tavrix_samba_packages=(
  samba samba-vfs-modules smbclient samba-testsuite attr gcc perl python3 python3-impacket
  libparse-yapp-perl rclone xz-utils
)

# Packages that only scripts/test-page.sh needs: the console, and a browser that tests drive.
tavrix_page_packages=(
  cockpit-bridge cockpit-system cockpit-ws chromium-headless-shell iproute2 openssl python3-websockets sudo
)

# Packages that only scripts/make-packages.sh needs.
tavrix_debian_packages=(debhelper dpkg-dev fakeroot lintian)

install_packages() {
  local missing=()
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q >/dev/null
  apt-get install -q -y --no-install-recommends "${missing[@]}" >/dev/null
}

require_root() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "$0: run this as root: it installs packages and makes namespaces" >&2
    exit 2
  fi
}
