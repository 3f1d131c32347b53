# SPDX-License-Identifier: LGPL-3.0-or-later
# The steps of scripts/test-packages.sh that run inside the machine. Each function ends with 0, or prints the
# reason and ends with 1.

conf=/tavrix/.conf
link=/usr/lib/x86_64-linux-gnu/samba/libsamdb-common.so.0
metrics=/var/lib/prometheus/node-exporter/tavrix.prom
export DEBIAN_FRONTEND=noninteractive

wrong() {
  echo "$*"
  exit 1
}

apt() { apt-get -q -y --no-install-recommends "$@" </dev/null >/root/apt.log 2>&1 || { tail -n 20 /root/apt.log; exit 1; }; }

said() {  # TEXT: the last run of apt printed it
  grep -qF -- "$1" /root/apt.log || { tail -n 30 /root/apt.log; wrong "apt did not print: $1"; }
}

# Every file with its kind, mode, owner and link target, and what is in those of /etc. Left out is what any
# package changes, and what a running machine writes.
snapshot() {
  find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /root -o -path /srv \
    -o -path /var/tmp -o -path /var/cache -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/lib/systemd \
    -o -path /var/lib/samba -o -path /var/log -o -path /etc/ld.so.cache -o -path /etc/mtab \) -prune \
    -o -printf '%y %m %U:%G %p %l\n' | sort
  find /var/log /var/lib/systemd -name '*tavrix*' | sort
  find /etc -xdev -type f ! -name ld.so.cache -exec sha256sum {} + | sort -k 2
}

expect_snapshot() {  # FILE [PATTERN]: but for lines with the pattern, nothing differs
  snapshot | diff "$1" - | grep '^[<>]' | grep -vE "${2:-^$}" >/root/difference || return 0
  head -n 20 /root/difference
  wrong "the file system differs"
}

# --- what must be so ---

expect_active() {
  local unit
  for unit in "$@"; do
    systemctl is-active -q "$unit" || { systemctl status --no-pager "$unit" | head -n 20; wrong "$unit does not run"; }
  done
}

expect_services() {
  expect_active tavrix-sweeper tavrix-loader
  systemctl is-enabled -q tavrix-sweeper tavrix-loader tavrix-metrics.timer || wrong "a unit is not enabled"
  local sweeper loader
  sweeper=$(systemctl show -P ActiveEnterTimestampMonotonic tavrix-sweeper)
  loader=$(systemctl show -P ExecMainStartTimestampMonotonic tavrix-loader)
  [ "$sweeper" -le "$loader" ] || wrong "the loader started before the sweeper was ready"
  tavrixctl config show >/dev/null || wrong "no settings are loaded"
}

# The timer starts when the folder of node_exporter comes, and its service writes the metrics there.
expect_timer_with_its_folder_only() {
  ! systemctl is-active -q tavrix-metrics.timer || wrong "the timer runs without node_exporter"
  mkdir -p /root/exporter/DEBIAN /root/exporter/var/lib/prometheus/node-exporter
  printf '%s\n' 'Package: exporter' 'Version: 1' 'Architecture: all' 'Maintainer: nobody' 'Description: a folder' \
    >/root/exporter/DEBIAN/control
  dpkg-deb -b /root/exporter >/dev/null
  dpkg -i /root/exporter.deb >/dev/null
  expect_active tavrix-metrics.timer
  systemctl start tavrix-metrics.service || wrong "the metrics are not written"
  grep -q '^tavrix_status' $metrics || wrong "there are no metrics"
}

expect_link() {  # TARGET
  [ "$(readlink $link)" = "$1" ] || wrong "$link leads to \"$(readlink $link)\", not to $1"
}

expect_no_memory() {
  ! ipcs | grep -E '^0x' || wrong "shared memory or semaphores are left"
}

expect_exposure() {  # MOST UNIT...: systemd's own judgement of each unit
  local unit score
  for unit in "${@:2}"; do
    score=$(systemd-analyze security --no-pager "$unit.service" | sed -nE 's/.*exposure level.*: ([0-9.]+) .*/\1/p')
    awk -v score="$score" -v most="$1" 'BEGIN { exit !(score != "" && score <= most) }' || wrong "$unit: $score"
  done
}

map_segment() { ipcs -m | awk '/^0x7065726/ { print $1, $2 }'; }

# Warnings and errors of the services, but for the session that was killed.
expect_no_complaint() {
  local lines
  lines=$(journalctl -q -u tavrix-sweeper -u tavrix-loader -u tavrix-historian -u tavrix-clusterd -p warning -o cat |
    grep -v '^recorded 1 file.* that ended processes had changed$' || true)
  [ -z "$lines" ] || wrong "$lines"
}

# Runs a command as in a container: no systemd to talk to.
without_systemd() {
  export -f apt
  unshare --mount bash -euc 'mount -t tmpfs tmpfs /run; "$@"' without_systemd "$@"
}

# --- a share with a client ---

make_share() {
  make_tree
  cat >/etc/samba/smb.conf <<'CONF'
[global]
  server role = standalone server
  disable spoolss = yes
  load printers = no

[tavrix]
  path = /tavrix
  read only = no
  case sensitive = yes
  aio read size = 0
  aio write size = 0
  vfs objects = tavrix
CONF
  add_password
  hand_over_map
  systemctl restart smbd
}

make_tree() {
  mkdir -p /tavrix/Shared/Design /tavrix/Private
  chmod 0700 /tavrix/Shared /tavrix/Private
  id -u anna >/dev/null 2>&1 || useradd -M -u 1005 anna
  echo '{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002}, "users": {"anna": [9002, 9010]}}' >/root/groups.json
  tavrixctl groupmap build /root/groups.json -o /etc/tavrix/groupmap_refresh >/dev/null
}

add_password() { printf 'anna\nanna\n' | smbpasswd -s -a anna >/dev/null; }

hand_over_map() {
  local name
  for name in size data; do
    cp /usr/share/doc/tavrix-tools/examples/team/$name.json /var/lib/tavrix/maps/.$name
    mv /var/lib/tavrix/maps/.$name /var/lib/tavrix/maps/$name.json
  done
  local try
  for try in {1..100}; do
    ! tavrixctl map info >/dev/null 2>&1 || return 0
    sleep 0.1
  done
  wrong "the loader did not publish the map"
}

smb() { smbclient //127.0.0.1/tavrix -U anna%anna -c "$1" 2>&1; }

put() {  # NAME: anna writes a file
  local output
  output=$(smb "cd Shared\\Design; put /etc/hostname $1") || wrong "$output"
}

expect_event() {  # NAME: a dump file has an event of this file, within two periods of the sweeper
  local try
  for try in {1..120}; do
    ! find $conf/staging -name 'pending_*' -exec tavrixctl events decode {} + 2>/dev/null | grep -qF "$1" || return 0
    sleep 0.1
  done
  wrong "no dump file has an event of $1"
}

# A client that stays connected, and takes its commands from a pipe.
open_session() {
  rm -f /root/commands
  mkfifo /root/commands
  setsid bash -c 'sleep infinity >/root/commands & exec stdbuf -o0 smbclient //127.0.0.1/tavrix -U anna%anna \
    </root/commands >/root/session.log 2>&1' >/dev/null 2>&1 &
  tell_session 'ls Shared'
  local try
  for try in {1..100}; do
    ! grep -q 'blocks of size' /root/session.log || return 0
    sleep 0.1
  done
  cat /root/session.log
  wrong "the session does not work"
}

tell_session() { echo "$1" >/root/commands; }

close_session() {
  tell_session quit
  pkill -f 'sleep infinity' || true
  local try
  for try in {1..100}; do
    pgrep -x smbclient >/dev/null || return 0
    sleep 0.1
  done
  wrong "the session did not end"
}

# A client writes a file and has not closed it when its server process is killed.
kill_a_session_that_writes() {
  rm -f /root/slow
  mkfifo /root/slow
  setsid bash -c '(head -c 64000000 /dev/zero; sleep 30) >/root/slow' >/dev/null 2>&1 &
  setsid smbclient //127.0.0.1/tavrix -U anna%anna -c 'cd Shared\Design; put /root/slow slow.txt' >/dev/null 2>&1 &
  local try
  for try in {1..100}; do
    [ ! -s /tavrix/Shared/Design/slow.txt ] || break
    sleep 0.1
  done
  [ -s /tavrix/Shared/Design/slow.txt ] || wrong "the client does not write"
  local session
  session=$(holder_of /tavrix/Shared/Design/slow.txt)
  kill -KILL $session
}

holder_of() {  # FILE: the processes that have it open
  find /proc/[0-9]*/fd -lname "$1" 2>/dev/null | cut -d/ -f3 | sort -u
}

# --- a cluster of one node ---

public_address=198.51.100.1

# As the document of the cluster says; a machine in a container has no real-time scheduling.
make_node() {
  systemctl disable -q --now smbd nmbd
  systemctl stop ctdb
  make_tree
  mkdir -p $conf/staging $conf/auditing /tavrix/.ctdb
  chmod 0700 $conf /tavrix/.ctdb
  sed -i '/^\[CLUSTER\]/,/^\[/s/^enabled = no/enabled = yes/' /etc/tavrix/tavrix.conf
  systemctl restart tavrix-sweeper tavrix-loader tavrix-clusterd
  hand_over_map
  echo 192.0.2.10 >/etc/ctdb/nodes
  echo "$public_address/24 eth0" >/etc/ctdb/public_addresses
  printf '%s\n' '[cluster]' '  cluster lock = /tavrix/.ctdb/reclock' '[legacy]' '  realtime scheduling = false' >/etc/ctdb/ctdb.conf
  ctdb event script enable legacy 50.samba
  cat >/etc/samba/smb.conf <<'CONF'
[global]
  clustering = yes
  netbios name = TAVRIX
  server role = standalone server
  passdb backend = tdbsam
  disable spoolss = yes
  load printers = no

[tavrix]
  path = /tavrix
  read only = no
  hide dot files = no
  case sensitive = yes
  vfs objects = fileid tavrix
  fileid:algorithm = fsname
CONF
}

start_node() {
  systemctl start ctdb
  local try
  for try in {1..120}; do
    ! ctdb nodestatus >/dev/null 2>&1 || return 0
    sleep 0.5
  done
  ctdb status || true
  tail -n 20 /var/log/ctdb/log.ctdb || true
  wrong "CTDB does not count the node as healthy"
}

# A healthy node gets its addresses some seconds later.
await_public_address() {
  local try
  for try in {1..300}; do
    ! has_public_address || return 0
    sleep 0.1
  done
  ctdb ip || true
  tail -n 20 /var/log/ctdb/log.ctdb || true
  wrong "the public address is not served"
}

has_public_address() { ip -4 address show eth0 | grep -qF "$public_address/"; }
