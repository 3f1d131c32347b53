# SPDX-License-Identifier: LGPL-3.0-or-later
# Machines for tests: a Debian 12 with systemd, empty at its first start, in namespaces of its own. It has its
# own processes, mounts, System V objects, control groups, and a network that leads nowhere. Its packages come
# from a mirror on this machine, so that it always finds the same versions.
# Source it as root after packages.sh, in the folder of the project.
#
#   prepare_machines samba a.deb         the base and a mirror with all that these packages need; made once
#   machine_create office                a new, empty machine; one of that name is thrown away
#   machine_start office                 boots it, and waits until its services run
#   machine_run office apt-get update    a command in it, as root; its output and exit status
#   machine_copy office a.deb b.deb /root
#   machine_reboot office                the disk stays, shared memory goes
#   machine_stop office                  an orderly power off; machine_kill pulls the plug
#   machine_remove office                stops it and deletes its disk

machines=$PWD/build/machines
machine_suite=bookworm

# --- the base and the mirror, made once ---

# usage: prepare_machines NAME...   makes what the machines can install: packages of Debian, what a file NAME.deb
# needs of Debian, and the source of a package as src:NAME
prepare_machines() {
  install_packages debootstrap systemd-container dpkg-dev apt-utils
  mkdir -p "$machines"
  [ -e "$machines/base/ready" ] || make_machine_base
  local name
  for name in "$@"; do
    mirrored_name "$name" | grep -qxFf - "$machines/mirror/names" 2>/dev/null || { extend_machine_mirror "$@"; break; }
  done
}

# The line of mirror/names for a name; for a file, with what it needs.
mirrored_name() {
  case $1 in
    *.deb) dpkg-deb --field "$1" Package Depends | paste -sd' ' ;;
    *) echo "$1" ;;
  esac
}

# The lines "URL SUITE COMPONENT" of Debian 12's archives in this machine's own lists.
machine_archives() {
  local archives
  archives=$(apt-get indextargets --format '$(ORIGIN) $(REPO_URI) $(CODENAME) $(COMPONENT)' \
    'Created-By: Packages' | sed -nE "s/^Debian ([^ ]+ $machine_suite(-security|-updates)? main)$/\1/p" | sort -u)
  if [ -z "$archives" ]; then
    echo "this machine has no list of the packages of Debian 12 ($machine_suite)" >&2
    return 1
  fi
  echo "$archives"
}

make_machine_base() {
  local archives
  archives=$(machine_archives) || return 1
  local mirror
  mirror=$(awk -v suite=$machine_suite '$2 == suite { print $1; exit }' <<<"$archives")
  echo "making an empty Debian 12 (debootstrap, once)"
  rm -rf "$machines/base"
  mkdir -p "$machines/base"
  debootstrap $machine_suite "$machines/base/root" "$mirror" >"$machines/debootstrap.log" 2>&1 ||
    { tail -n 20 "$machines/debootstrap.log" >&2; return 1; }
  rm -f "$machines"/base/root/var/cache/apt/archives/*.deb
  awk '{ print "deb", $0 "\ndeb-src", $0 }' <<<"$archives" >"$machines/base/root/etc/apt/sources.list"
  touch "$machines/base/ready"
}

# Downloads packages and sources with all that they need beyond the base. It works in a copy of the base with this
# machine's network.
extend_machine_mirror() {
  echo "filling the machines' mirror"
  mkdir -p "$machines/mirror" "$machines/download"
  unshare --mount --propagation private bash -euo pipefail -c '
    machines=$1
    shift
    mount -t tmpfs tmpfs "$machines/download"
    mkdir "$machines"/download/{disk,work,root}
    mount -t overlay -o "lowerdir=$machines/base/root,upperdir=$machines/download/disk,workdir=$machines/download/work" \
      overlay "$machines/download/root"
    root=$machines/download/root
    cp --dereference /etc/resolv.conf "$root/etc/resolv.conf"
    mount --bind "$machines/mirror" "$root/srv"
    mount -t proc proc "$root/proc"
    in_root() { chroot "$root" env DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
    in_root apt-get update -q
    packages=()
    for name in "$@"; do
      case $name in
        src:*) in_root sh -c "cd /srv && apt-get source -q --download-only -o APT::Sandbox::User=root ${name#src:}" ;;
        *.deb) cp "$name" "$root/opt/" && packages+=("/opt/${name##*/}") ;;
        *) packages+=("$name") ;;
      esac
    done
    mkdir -p "$root/srv/partial"
    in_root apt-get install -q -y --download-only -o Dir::Cache::archives=/srv -o APT::Sandbox::User=root \
      "${packages[@]}"
    rm -rf "$root"/srv/partial "$root"/srv/lock
  ' prepare "$machines" "$@" >"$machines/mirror.log" 2>&1 || { tail -n 20 "$machines/mirror.log" >&2; return 1; }
  (
    cd "$machines/mirror"
    rm -f Release
    dpkg-scanpackages -m . >Packages
    dpkg-scansources . >Sources
    apt-ftparchive release . >.Release
    mv .Release Release
  ) 2>>"$machines/mirror.log"
  local name
  for name in "$@"; do mirrored_name "$name"; done >>"$machines/mirror/names"
}

# --- a machine ---

machine_create() {  # NAME
  machine_remove "$1"
  local disk=$machines/$1/disk
  mkdir -p "$disk/etc/apt" "$machines/$1/work" "$machines/$1/root"
  chmod 0755 "$disk" "$disk/etc" "$disk/etc/apt"
  echo "$1" >"$disk/etc/hostname"
  printf '127.0.0.1 localhost\n127.0.1.1 %s\n' "$1" >"$disk/etc/hosts"
  : >"$disk/etc/resolv.conf"
  printf '%s [trusted=yes] file:/srv/debian-mirror ./\n' deb deb-src >"$disk/etc/apt/sources.list"
}

machine_start() {  # NAME
  local folder=$machines/$1
  rm -f "$folder/supervisor"
  setsid unshare --mount --net --propagation private bash -euo pipefail -c "$machine_supervisor" \
    machine "$machines" "$1" </dev/null >>"$folder/console.log" 2>&1 &
  machine_wait "$1" 0
}

# Boots the machine again whenever it wants to, and ends with it. On a control group hierarchy of its own,
# since the machine's systemd manages it as if it were alone.
machine_supervisor='
  machines=$1 name=$2 folder=$1/$2
  mount -t tmpfs tmpfs /run
  mount -t cgroup2 cgroup2 /sys/fs/cgroup
  group=/sys/fs/cgroup/machine-$name-$$
  mkdir "$group"
  ip link set lo up
  ip link add eth0 type bridge  # a card without a cable, so that network services start as elsewhere
  ip address add 192.0.2.10/24 dev eth0
  ip link set eth0 up
  mount -t overlay -o "lowerdir=$machines/base/root,upperdir=$folder/disk,workdir=$folder/work" overlay "$folder/root"
  echo $$ >"$folder/supervisor.new"
  mv "$folder/supervisor.new" "$folder/supervisor"
  status=133
  while [ $status = 133 ]; do  # the status of systemd-nspawn for a reboot
    status=0
    echo $$ >"$group/cgroup.procs"
    systemd-nspawn --quiet --register=no --keep-unit --boot --capability=CAP_NET_ADMIN --resolv-conf=off \
      --timezone=off --link-journal=no --machine="$name" --directory="$folder/root" \
      --bind-ro="$machines/mirror:/srv/debian-mirror" || status=$?
    echo "-- the machine ended with status $status --"
    echo $$ >/sys/fs/cgroup/cgroup.procs
    find "$group" -mindepth 1 -depth -type d -exec rmdir {} + || true
  done
  rmdir "$group" || true
  rm -f "$folder/supervisor"'

# The process id of the machine's first process; fails when it does not run.
machine_leader() {  # NAME
  local supervisor nspawn
  supervisor=$(cat "$machines/$1/supervisor" 2>/dev/null) || return 1
  nspawn=$(pgrep -P "$supervisor" -x systemd-nspawn) || return 1
  pgrep -P "$nspawn" -x systemd
}

# Waits until the services run, and on another first process than LEADER.
machine_wait() {  # NAME LEADER
  local try leader
  for try in {1..600}; do
    leader=$(machine_leader "$1") || leader=$2
    if [ "$leader" != "$2" ]; then
      case $(machine_run "$1" systemctl is-system-running 2>/dev/null || true) in
        running | degraded) return 0 ;;
      esac
    fi
    sleep 0.1
  done
  echo "machine $1 does not come up:" >&2
  tail -n 20 "$machines/$1/console.log" >&2
  return 1
}

machine_run() {  # NAME COMMAND...
  local leader
  leader=$(machine_leader "$1") || { echo "machine $1 does not run" >&2; return 1; }
  shift
  nsenter --target "$leader" --all env -i --chdir=/root HOME=/root USER=root LOGNAME=root SHELL=/bin/bash \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"
}

machine_copy() {  # NAME FILE... FOLDER
  local name=$1 folder=${!#} file
  for file in "${@:2:$#-2}"; do
    tar -C "$(dirname "$file")" -cf - "$(basename "$file")" |
      machine_run "$name" tar -C "$folder" --no-same-owner -xf - || return 1
  done
}

machine_reboot() {  # NAME
  local leader
  leader=$(machine_leader "$1") || return 1
  machine_run "$1" systemctl reboot 2>/dev/null || true
  machine_wait "$1" "$leader"
}

machine_stop() {  # NAME
  local leader
  leader=$(machine_leader "$1") || return 0
  kill -s RTMIN+4 "$leader"  # systemd's signal for a power off
  machine_await_end "$1"
}

machine_kill() {  # NAME
  local leader
  leader=$(machine_leader "$1") || return 0
  kill -KILL "$leader"
  machine_await_end "$1"
}

machine_await_end() {  # NAME
  local try
  for try in {1..900}; do
    [ -e "$machines/$1/supervisor" ] || return 0
    sleep 0.1
  done
  echo "machine $1 does not end" >&2
  return 1
}

machine_remove() {  # NAME
  machine_kill "$1"
  rm -rf "${machines:?}/$1"
}
