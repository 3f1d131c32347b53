#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Tries the packages, and prints a line for each step; ends with 1 and the reason at the first that fails.
#   lintian      all its complaints, down to the pedantic ones
#   life         install, use, upgrade, remove, reinstall and purge on an empty Debian 12 with systemd, with the
#                file system compared before and after
#   cluster      a machine becomes the one node of a cluster, with systemd and CTDB, and ceases to be one
#   page         the web console of a machine gets the page, and loses it
#   piuparts     Debian's own trial of the same in a chroot
#   autopkgtest  debian/tests on an empty Debian 12 with systemd
# usage: scripts/test-packages.sh [--packages FOLDER] [PART]...   (all parts; scripts/make-packages.sh makes the
#        packages when no folder is given)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/machine.sh
require_root

folder=$PWD/build/packages/packages
if [ "${1:-}" = --packages ]; then
  folder=$(realpath "$2")
  shift 2
else
  scripts/make-packages.sh >/dev/null
fi
parts=("$@")
[ ${#parts[@]} -gt 0 ] || parts=(lintian life cluster page piuparts autopkgtest)
names=(libtavrix1 tavrix-tools tavrix-historian samba-vfs-tavrix)
needed=(samba smbclient libyajl2 libprotobuf-c1 libfmt9 libiniparser1 libsqlite3-0)

scratch=$(mktemp -d)
trap 'machine_kill office; rm -rf "$scratch"' EXIT

# Runs a function of this file, here; its output is shown when it fails.
report() {  # WHAT COMMAND...
  local what=$1 begin=${EPOCHREALTIME/./} output
  shift
  if output=$("$@" 2>&1); then
    printf 'ok %7.1f s  %s\n' "$(((${EPOCHREALTIME/./} - begin) / 100000))e-1" "$what"
  else
    printf 'FAILED  %s\n%s\n' "$what" "$(tail -n 40 <<<"$output")" >&2
    exit 1
  fi
}

# Runs commands inside the machine, with the functions of package_steps.sh.
step() {  # WHAT COMMANDS
  report "$1" machine_run office bash -c "set -eu; . /root/package_steps.sh; $2"
}

start_empty_machine() {
  prepare_machines "${needed[@]}" "$@"
  machine_create office
  machine_start office
  machine_copy office scripts/lib/package_steps.sh /root
}

# The same packages as an older version: what differs is the number.
make_previous_packages() {  # FOLDER
  local package tree
  for package in "${names[@]/#/$scratch/current/}"; do
    tree=$scratch/tree
    rm -rf "$tree"
    dpkg-deb -R "$package"_*.deb "$tree"
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

# --- the life of the packages ---

try_life() {
  mkdir -p "$scratch/previous" "$scratch/current"
  local name
  for name in "${names[@]}"; do cp "$folder/$name"_*.deb "$scratch/current/"; done
  make_previous_packages "$scratch/previous"
  start_empty_machine
  make_later_samba_libs "$scratch"
  cp "$machines"/mirror/samba-libs_*.deb "$scratch/samba-libs.deb"
  machine_copy office "$scratch"/{previous,current,samba-libs.deb,samba-libs-later.deb} /root
  step "an empty machine gets Samba" "apt update; apt install ${needed[*]}; snapshot >/root/before"
  try_install_and_purge
  try_upgrade
  try_updates_of_samba
  try_removal
  try_without_systemd
  machine_kill office
}

try_install_and_purge() {
  step "install: sweeper and loader run, in order, with settings" \
    'apt install /root/current/*.deb; expect_services'
  step "install: the historian runs and keeps the history" '
    expect_active tavrix-historian
    [ -d /tavrix/.conf/history ] && [ -e /var/lib/tavrix/history/history.db ] || wrong "nothing is kept"'
  step "install: the comparison library is linked" 'expect_link libsamdb-common-samba4.so.0'
  step "install: each unit's exposure is 4.0 or better" 'expect_exposure 4.0 tavrix-{sweeper,loader,historian,metrics}'
  step "install: the metrics run when node_exporter's folder comes" 'expect_timer_with_its_folder_only'
  step "remove: services, programs and link are gone, settings and state stay" '
    apt remove libtavrix1 tavrix-tools tavrix-historian samba-vfs-tavrix
    ! systemctl is-active -q tavrix-sweeper tavrix-loader tavrix-historian || wrong "a service runs"
    [ ! -e /tavrix/.conf/history ] || wrong "flushes still link their files"
    [ -e /var/lib/tavrix/history/history.db ] || wrong "the history is gone"
    ! pgrep tavrix || wrong "a program runs"
    [ ! -L $link ] || wrong "the link is left"
    [ ! -e $metrics ] || wrong "metrics are left that nobody renews"
    dpkg -P exporter >/dev/null
    [ -e /etc/tavrix/tavrix.conf ] && [ -d /var/lib/tavrix/maps ] || wrong "settings or state are gone"'
  step "purge: the machine is as before" '
    apt purge libtavrix1 tavrix-tools tavrix-historian samba-vfs-tavrix
    expect_no_memory
    expect_snapshot /root/before'
}

# A share in use, and an upgrade under it.
try_upgrade() {
  step "install the previous version, and serve a share" '
    apt install /root/previous/*.deb
    make_share
    open_session
    put first.txt
    expect_event first.txt'
  step "a killed session: the confined sweeper records what it had open" 'kill_a_session_that_writes; expect_event slow.txt'
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
    put new.txt
    for name in during old new; do expect_event $name.txt; done
    close_session'
  step "the confined services complain of nothing" 'expect_no_complaint'
  step "an upgrade starts no service that the operator disabled" '
    systemctl disable -q --now tavrix-loader
    apt install --reinstall /root/current/*.deb
    ! systemctl is-active -q tavrix-loader || wrong "the loader runs"
    systemctl enable -q --now tavrix-loader'
  step "an upgrade without old sessions names none" '
    apt install --reinstall /root/current/*.deb
    ! grep -q "keep the previous library" /root/apt.log || wrong "a session is named"'
}

try_updates_of_samba() {
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
}

# With something left to deliver.
try_removal() {
  step "remove: the last events come to a file, and the share is named" '
    put last.txt
    cp /usr/bin/tavrixctl /root/
    apt remove samba-vfs-tavrix tavrix-historian tavrix-tools
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
    apt purge samba-vfs-tavrix tavrix-historian tavrix-tools libtavrix1
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
    apt purge samba-vfs-tavrix tavrix-historian tavrix-tools libtavrix1
    said "Nobody writes their events"
    [ -s $conf/tavrix_event_status.dirty ] || wrong "there is no request for a rescan"
    close_session'
}

# As in a container: nothing of systemd runs, and its program for folders is missing.
try_without_systemd() {
  step "without systemd: the packages install, and leave nothing" '
    rm -rf $conf /tavrix
    mv /usr/bin/systemd-tmpfiles /usr/bin/.systemd-tmpfiles
    without_systemd apt install /root/current/*.deb
    [ -d $conf/staging ] && [ -d /var/lib/tavrix/maps ] || wrong "a folder is missing"
    ! pgrep tavrix || wrong "a program runs"
    without_systemd apt purge samba-vfs-tavrix tavrix-historian tavrix-tools libtavrix1
    [ ! -e /tavrix ] || wrong "/tavrix is left"
    mv /usr/bin/.systemd-tmpfiles /usr/bin/systemd-tmpfiles'
}

# --- a node of a cluster ---

try_cluster() {
  local packages=(ctdb ethtool iptables samba-vfs-modules "${needed[@]}")
  mkdir -p "$scratch/cluster"
  cp "$folder"/{libtavrix1,tavrix-tools,samba-vfs-tavrix,tavrix-cluster}_*.deb "$scratch/cluster/"
  start_empty_machine "${packages[@]}"
  machine_copy office "$scratch/cluster" /root
  step "an empty machine gets CTDB and Samba" "apt update; apt install ${packages[*]}; snapshot >/root/before"
  step "cluster: on a machine that is no node the daemon does not run, and nothing has failed" '
    apt install /root/cluster/*.deb
    expect_services
    systemctl is-enabled -q tavrix-clusterd || wrong "the daemon is not enabled"
    [ "$(systemctl show -P ActiveState tavrix-clusterd)" = inactive ] || wrong "the daemon runs, or failed"
    for script in 45.tavrix 60.tavrix; do
      [ -x /etc/ctdb/events/legacy/$script.script ] || wrong "CTDB has no script $script"
    done'
  step "cluster: the daemon's exposure is 4.0 or better" 'expect_exposure 4.0 tavrix-clusterd'
  step "cluster: a node is healthy, and serves its address" '
    make_node
    start_node
    expect_active tavrix-sweeper tavrix-loader tavrix-clusterd smbd
    await_public_address
    tavrixctl health
    tavrixctl cluster status'
  step "cluster: a client works, and its events name the node" '
    add_password
    put first.txt
    expect_event first.txt
    ls $conf/staging/office/pending_* >/dev/null'
  step "cluster: settings that go to all nodes reach the confined services" '
    sed -i "s/^flush period = 5/flush period = 2/" /etc/tavrix/tavrix.conf
    tavrixctl cluster share --settings
    for try in {1..100}; do
      ! journalctl -q -u tavrix-sweeper -o cat | grep -q "settings read: flushing every 2 seconds" || exit 0
      sleep 0.1
    done
    wrong "the sweeper has the old settings"'
  step "cluster: a killed ctdbd leaves no address behind" '
    pkill -KILL -x ctdbd
    for try in {1..100}; do has_public_address || break; sleep 0.1; done
    ! has_public_address || wrong "the address is still served"
    systemctl stop ctdb'
  step "cluster: the node comes back, is drained and resumed" '
    start_node
    tavrixctl cluster drain office
    tavrixctl cluster resume office
    start_node
    put last.txt'
  step "cluster: a stop of CTDB ends the servers, and delivers the events without an alarm" '
    systemctl stop ctdb
    ! pgrep -x smbd || wrong "a server runs"
    expect_event last.txt
    [ ! -e $conf/tavrix_event_status.dirty ] || wrong "the agent is asked for a rescan"'
  step "cluster: the services complain of nothing" 'expect_no_complaint'
  step "cluster: purge: the machine is as before" '
    apt purge tavrix-cluster samba-vfs-tavrix tavrix-tools libtavrix1
    expect_no_memory
    rm -rf /etc/samba/smb.conf
    userdel anna
    expect_snapshot /root/before " /tavrix|ctdb|/etc/(samba/smb.conf|passwd|group|shadow|gshadow|subuid|subgid)|/etc/(rc.\.d|systemd)/.*(smbd|nmbd)"'
  machine_kill office
}

# --- the page in the web console ---

try_page() {
  local packages=(cockpit-bridge "${needed[@]}")
  mkdir -p "$scratch/page"
  cp "$folder"/{libtavrix1,tavrix-tools,cockpit-tavrix}_*.deb "$scratch/page/"
  start_empty_machine "${packages[@]}"
  machine_copy office "$scratch/page" /root
  step "an empty machine gets the console's bridge" "apt update; apt install ${packages[*]}; snapshot >/root/before"
  step "page: the console knows it, and each of its files" '
    apt install /root/page/*.deb
    cockpit-bridge --packages | grep -q "^tavrix .*/usr/share/cockpit/tavrix$" || wrong "the console does not know the page"
    for file in index.html index.js index.css manifest.json LICENSES.txt; do
      [ -s /usr/share/cockpit/tavrix/$file ] || wrong "$file is missing"
    done'
  step "page: purge: the machine is as before" '
    apt purge cockpit-tavrix tavrix-tools libtavrix1
    expect_no_memory
    expect_snapshot /root/before'
  machine_kill office
}

# --- the other parts ---

try_lintian() {
  report "lintian has no complaint" run_lintian
}

run_lintian() {
  lintian --allow-root --pedantic --display-info --display-experimental \
    --fail-on error,warning,info,pedantic,experimental "$folder"/*.changes
}

try_piuparts() {
  install_packages piuparts
  prepare_machines "${needed[@]}"
  report "piuparts: a chroot is as before after install and purge" run_piuparts
}

# The chroot takes its packages from the machines' mirror. A purge of logrotate, which piuparts installs, leaves
# the file that is ignored.
run_piuparts() {
  cp -a "$machines/base/root" "$scratch/chroot"
  mkdir -p "$scratch/chroot/srv/debian-mirror"
  cp "$machines"/mirror/* "$scratch/chroot/srv/debian-mirror/"
  echo 'deb [trusted=yes] file:/srv/debian-mirror ./' >"$scratch/chroot/etc/apt/sources.list"
  unshare --ipc --mount --pid --fork --kill-child piuparts --existing-chroot "$scratch/chroot" \
    --distribution bookworm --keep-sources-list --no-adequate --ignore /var/lib/logrotate/status \
    "$folder"/{libtavrix1,tavrix-tools,tavrix-historian,samba-vfs-tavrix}_*.deb
}

try_autopkgtest() {
  start_empty_machine autopkgtest dpkg-dev
  mkdir -p "$scratch/tree/libtavrix"
  tar -c debian scripts/lib/package_steps.sh | tar -x -C "$scratch/tree/libtavrix"
  local name
  for name in "${names[@]}"; do cp "$folder/$name"_*.deb "$scratch/tree/"; done
  machine_copy office "$scratch/tree" /root
  step "autopkgtest gets its packages" 'apt update; apt install autopkgtest dpkg-dev'
  step "autopkgtest: debian/tests pass" 'autopkgtest --apt-upgrade -B /root/tree/*.deb /root/tree/libtavrix/ -- null'
  machine_kill office
}

for part in "${parts[@]}"; do
  case $part in
    lintian | life | cluster | page | piuparts | autopkgtest) "try_$part" ;;
    *) echo "no part $part; there are: lintian life cluster page piuparts autopkgtest" >&2; exit 2 ;;
  esac
done
echo "the packages are in order"
