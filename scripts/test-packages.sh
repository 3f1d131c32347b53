#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Tries the life of the packages on an empty Debian 12 with systemd: install, use, upgrade, remove, reinstall and
# purge, with the file system compared before and after. Prints a line for each step; ends with 1 and the reason
# at the first that fails.
# usage: scripts/test-packages.sh [FOLDER]   (of the packages; made by scripts/make-packages.sh when left out)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/machine.sh
require_root

folder=${1:-$PWD/build/packages/packages}
[ -n "${1:-}" ] || scripts/make-packages.sh >/dev/null
scratch=$(mktemp -d)
trap 'machine_kill office; rm -rf "$scratch"' EXIT

step() {  # WHAT COMMANDS: inside the machine, with the functions of package_steps.sh
  local begin=${EPOCHREALTIME/./} output
  if output=$(machine_run office bash -c "set -eu; . /root/package_steps.sh; $2" 2>&1); then
    printf 'ok %7.1f s  %s\n' "$(((${EPOCHREALTIME/./} - begin) / 100000))e-1" "$1"
  else
    printf 'FAILED  %s\n%s\n' "$1" "$output" >&2
    exit 1
  fi
}

# The same packages as an older version: what differs is the number.
make_previous_packages() {  # FOLDER
  local package tree
  for package in "$folder"/{libtavrix1,tavrix-tools,samba-vfs-tavrix}_*.deb; do
    tree=$scratch/tree
    rm -rf "$tree"
    dpkg-deb -R "$package" "$tree"
    sed -Ei "s/^(Version: .*)/\1~previous/; s/(libtavrix1|tavrix-tools) \(= ([^)]*)\)/\1 (= \2~previous)/g" \
      "$tree/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$tree" "$1" >/dev/null
  done
}

# samba-libs as in a later series, where the comparison library has another name.
make_later_samba_libs() {  # FOLDER
  local tree=$scratch/tree samba
  rm -rf "$tree"
  dpkg-deb -R "$machines"/mirror/samba-libs_*.deb "$tree"
  sed -Ei 's/^(Version: .*)/\1+later/' "$tree/DEBIAN/control"
  samba=$tree/usr/lib/x86_64-linux-gnu/samba
  mv "$samba/libsamdb-common-samba4.so.0" "$samba/libsamdb-common-private-samba.so.0"
  dpkg-deb --root-owner-group -b "$tree" "$1/samba-libs-later.deb" >/dev/null
}

prepare_machine() {
  prepare_machines samba smbclient libyajl2 libprotobuf-c1 libfmt9 libiniparser1
  mkdir -p "$scratch/previous" "$scratch/current"
  make_previous_packages "$scratch/previous"
  cp "$folder"/{libtavrix1,tavrix-tools,samba-vfs-tavrix}_*.deb "$scratch/current/"
  make_later_samba_libs "$scratch"
  cp "$machines"/mirror/samba-libs_*.deb "$scratch/samba-libs.deb"
  machine_create office
  machine_start office
  machine_copy office scripts/lib/package_steps.sh "$scratch"/{previous,current,samba-libs.deb,samba-libs-later.deb} /root
}

prepare_machine
step "an empty machine gets Samba" \
  'apt update; apt install samba smbclient libyajl2 libprotobuf-c1 libfmt9 libiniparser1; snapshot >/root/before'

# --- install and purge, with nothing in between ---

step "install: sweeper and loader run, in order, with settings" \
  'apt install /root/current/*.deb; expect_services'
step "install: the comparison library is linked" 'expect_link libsamdb-common-samba4.so.0'
step "install: each unit's exposure is 4.0 or better" 'expect_exposure 4.0'
step "install: the metrics run where node_exporter's folder is" 'expect_timer_with_its_folder_only'
step "remove: services, programs and link are gone, settings and state stay" '
  apt remove libtavrix1 tavrix-tools samba-vfs-tavrix
  ! systemctl is-active -q tavrix-sweeper tavrix-loader || wrong "a service runs"
  ! pgrep tavrix || wrong "a program runs"
  [ ! -L $link ] || wrong "the link is left"
  [ -e /etc/tavrix/tavrix.conf ] && [ -d /var/lib/tavrix/maps ] || wrong "settings or state are gone"'
step "purge: the machine is as before" '
  apt purge libtavrix1 tavrix-tools samba-vfs-tavrix
  expect_no_memory
  expect_snapshot /root/before'

# --- a share in use, and an upgrade under it ---

step "install the previous version, and serve a share" '
  apt install /root/previous/*.deb
  make_share
  open_session
  smb "cd Shared\\Design; put /etc/hostname first.txt" >/dev/null
  expect_event first.txt'
step "an operator changes the settings" \
  'sed -i "s/^flush period = 5/flush period = 2/" /etc/tavrix/tavrix.conf; systemctl reload tavrix-sweeper'
step "upgrade: services restart, map and settings stay, the old session is named" '
  sweeper=$(systemctl show -P MainPID tavrix-sweeper)
  map=$(map_segment)
  tell_session "cd Shared\\Design"
  tell_session "put /etc/hostname during.txt"
  apt -o Dpkg::Options::=--force-confold install /root/current/*.deb
  expect_services
  [ "$(systemctl show -P MainPID tavrix-sweeper)" != "$sweeper" ] || wrong "the sweeper was not restarted"
  [ "$(map_segment)" = "$map" ] || wrong "the map was replaced"
  grep -q "^flush period = 2" /etc/tavrix/tavrix.conf || wrong "the settings were replaced"
  said "keep the previous library until their clients disconnect"
  said ", anna"'
step "upgrade: the old session goes on, a new one works, no event is lost" '
  tell_session "put /etc/hostname old.txt"
  smb "cd Shared\\Design; put /etc/hostname new.txt" >/dev/null
  for name in during old new; do expect_event $name.txt; done
  close_session'
step "an upgrade without old sessions names none" '
  apt install --reinstall /root/current/*.deb
  ! grep -q "keep the previous library" /root/apt.log || wrong "a session is named"'

# --- updates of Samba ---

step "another series of Samba: the link follows its library, and comes back" '
  dpkg -i --force-depends /root/samba-libs-later.deb >/dev/null 2>&1
  expect_link libsamdb-common-private-samba.so.0
  dpkg -i --force-depends --force-downgrade /root/samba-libs.deb >/dev/null 2>&1
  expect_link libsamdb-common-samba4.so.0'
step "a real file of that name is never replaced" '
  rm $link
  echo "of Samba" >$link
  dpkg -i /root/samba-libs.deb /root/current/libtavrix1_*.deb >/dev/null 2>&1
  grep -q "of Samba" $link || wrong "the file was replaced"
  rm $link
  dpkg -i /root/current/libtavrix1_*.deb >/dev/null 2>&1
  expect_link libsamdb-common-samba4.so.0'

# --- removal with something left to deliver ---

step "remove: the last events come to a file, and the share is named" '
  smb "cd Shared\\Design; put /etc/hostname last.txt" >/dev/null
  cp /usr/sbin/tavrixctl /root/
  apt remove samba-vfs-tavrix tavrix-tools
  said "cannot enter the shares"
  ls $conf/staging/pending_* >/dev/null
  ! smb "ls Shared" >/dev/null || wrong "the share is served without the module"'
step "reinstall: services, map and share are there again" '
  apt install /root/current/*.deb
  expect_services
  expect_event last.txt
  systemctl restart smbd
  smb "ls Shared\\Design\\*" | grep -q last.txt || wrong "the share does not work"'
step "purge: what nobody collected stays, with a sentence; so does the tree" '
  apt purge samba-vfs-tavrix tavrix-tools libtavrix1
  said "has not collected"
  ls $conf/staging/pending_* >/dev/null
  [ -e /tavrix/Shared/Design/last.txt ] || wrong "the tree is gone"
  expect_no_memory
  rm /etc/samba/smb.conf; userdel anna
  expect_snapshot /root/before " /tavrix|/etc/(samba/smb.conf|passwd|group|shadow|gshadow|subuid|subgid)"'
step "purge under a session: the agent is asked for a rescan" '
  rm -rf $conf
  apt install /root/current/*.deb
  make_share
  open_session
  apt purge samba-vfs-tavrix tavrix-tools libtavrix1
  said "Nobody writes their events"
  [ -s $conf/tavrix_event_status.dirty ] || wrong "there is no request for a rescan"
  close_session'

# --- without systemd ---

step "without systemd: the packages install, and leave nothing" '
  rm -rf /tavrix
  for name in systemd-tmpfiles systemctl; do mv /usr/bin/$name /usr/bin/.$name; done
  mv /bin/systemd-tmpfiles /bin/.systemd-tmpfiles 2>/dev/null || true
  apt install /root/current/*.deb
  [ -d $conf/staging ] && [ -d /var/lib/tavrix/maps ] || wrong "a folder is missing"
  apt purge samba-vfs-tavrix tavrix-tools libtavrix1
  [ ! -e /tavrix ] || wrong "/tavrix is left"
  for name in systemd-tmpfiles systemctl; do mv /usr/bin/.$name /usr/bin/$name; done'
echo "the packages live well"
