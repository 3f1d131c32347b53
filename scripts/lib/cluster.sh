# SPDX-License-Identifier: LGPL-3.0-or-later
# A cluster of three nodes on one machine: CTDB and Samba from the distribution, the services and the
# module from the build. Each node has namespaces of its own. All nodes live in a hub, which is the
# network's switch and the place of the clients. When the hub ends, everything ends, and its disk, which
# is in memory, goes with it.
# Source it. The functions of the first part are for the machine, the others for the hub.

cluster_sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cluster_build=${TAVRIX_CLUSTER_BUILD:-$cluster_sources/build/release}
# The folder of the hub's disk. Outside of the hub this folder holds the number of its process.
cluster=${TAVRIX_CLUSTER:-/tmp/tavrix-cluster}
cluster_packages=(ctdb ethtool iptables iproute2 samba smbclient tdb-tools python3-impacket)
samba_modules=/usr/lib/x86_64-linux-gnu/samba
network=10.99.0
nodes=(1 2 3)
public_addresses=($network.101 $network.102 $network.103)
cluster_users=(admin:1001 standard:1002 anna:1005 ben:1006 syncagent:1008)

# --- on the machine ------------------------------------------------------------------------------

# Installs packages without starting the services that they bring.
install_cluster_packages() {
  local policy=/usr/sbin/policy-rc.d made=
  [ -e $policy ] || { printf '#!/bin/sh\nexit 101\n' >$policy && chmod +x $policy && made=yes; }
  install_packages "${cluster_packages[@]}"
  [ -z "$made" ] || rm $policy
}

hub_is_up() { [ -s "$cluster/hub" ] && kill -0 "$(cat "$cluster/hub")" 2>/dev/null; }

# Starts the hub, without nodes.
start_hub() {
  mkdir -p "$cluster"
  rm -f "$cluster/hub"
  TAVRIX_CLUSTER=$cluster setsid unshare --mount --net --ipc --uts --pid --fork --kill-child \
    bash "$cluster_sources/scripts/lib/cluster_hub.sh" >"$cluster/hub.log" 2>&1 </dev/null &
  local maker=$! child=
  until child=$(cat "/proc/$maker/task/$maker/children" 2>/dev/null) && [ -n "$child" ]; do
    kill -0 $maker 2>/dev/null || { cat "$cluster/hub.log" >&2; return 1; }
    sleep 0.02
  done
  echo "${child// /}" >"$cluster/hub"
  until in_hub test -e "$cluster/ready" 2>/dev/null; do
    kill -0 $maker 2>/dev/null || { cat "$cluster/hub.log" >&2; return 1; }
    sleep 0.05
  done
}

# Runs a command in the hub.
in_hub() { nsenter -t "$(cat "$cluster/hub")" --all --wdns="$PWD" -- "$@"; }

# Runs a function of this file in the hub.
hub_do() {
  TAVRIX_CLUSTER=$cluster in_hub bash -euo pipefail -c 'source "$0"; "$@"' \
    "$cluster_sources/scripts/lib/cluster.sh" "$@"
}

stop_hub() {
  if hub_is_up; then
    local hub
    hub=$(cat "$cluster/hub")
    kill -KILL "$hub"
    while kill -0 "$hub" 2>/dev/null; do sleep 0.05; done
  fi
  rm -f "$cluster/hub" "$cluster/hub.log"
  rmdir "$cluster" 2>/dev/null || true
}

# --- in the hub: power and programs --------------------------------------------------------------

node_process() { cat "$cluster/node$1"; }
is_powered() { [ -s "$cluster/node$1" ] && kill -0 "$(node_process "$1")" 2>/dev/null; }

# Runs a command on a node.
on() {  # NODE COMMAND...
  local node=$1
  shift
  nsenter -t "$(node_process "$node")" --all -- \
    env PATH="$cluster/bin:$cluster_build/tools:$cluster_sources/scripts/lib:$PATH" "$@"
}

await() {  # SECONDS COMMAND...: until the command succeeds
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.2
  done
}

power_on() {  # NODE
  local node=$1 maker child=
  rm -f "$cluster/up$node" "$cluster/node$node"
  setsid unshare --mount --net --ipc --uts --pid --fork --kill-child \
    bash "$cluster_sources/scripts/lib/cluster_node.sh" "$node" >>"$cluster/log/node$node" 2>&1 </dev/null &
  maker=$!
  # The process exists before its namespaces do; a network device needs both.
  until child=$(cat "/proc/$maker/task/$maker/children" 2>/dev/null) && [ -n "$child" ]; do sleep 0.02; done
  child=${child// /}
  until [ "$(readlink "/proc/$child/ns/net")" != "$(readlink /proc/self/ns/net)" ]; do sleep 0.02; done
  echo "$child" >"$cluster/node$node"
  ! ip link show "veth$node" >/dev/null 2>&1 || ip link del "veth$node"
  ip link add "veth$node" type veth peer name eth0 netns "$child"
  ip link set "veth$node" master br0 up
  if ! await 30 test -e "$cluster/up$node"; then
    cat "$cluster/log/node$node" >&2
    return 1
  fi
}

# The memory of the node is gone at once, as by a power cut.
power_off() {  # NODE
  local process
  process=$(node_process "$1")
  kill -KILL "$process"
  while kill -0 "$process" 2>/dev/null; do sleep 0.02; done
  rm -f "$cluster/node$1"
}

start_ctdb() { on "$1" env CTDB_BASE=/etc/ctdb PATH="$cluster/bin:$cluster_build/tools:$PATH" ctdbd; }
stop_ctdb() { on "$1" ctdb shutdown; }

start_node() {
  power_on "$1"
  start_ctdb "$1"
}

# Kills ctdbd. A service manager then ends what is left of its unit, and runs the command that follows.
kill_ctdbd() {  # NODE
  on "$1" pkill -KILL -x ctdbd
  while on "$1" pkill -KILL -x 'ctdbd|ctdb-eventd'; do sleep 0.1; done
  local command
  command=$(sed -n 's/^ExecStopPost=//p' "$cluster_sources/cluster/ctdb.service.d/tavrix.conf")
  on "$1" $command >/dev/null 2>&1 || true
}

# A service manager starts a sweeper again that was killed.
restart_sweeper() {  # NODE
  on "$1" bash -c 'setsid tavrix-sweeper --foreground --settings /etc/tavrix/tavrix.conf \
    </dev/null >>/var/log/tavrix-sweeper.log 2>&1 & echo $! >/run/tavrix/sweeper.pid'
}

# After "ctdb shutdown": until smbd has ended and the sweeper has flushed for the last time.
await_end_of_services() {  # NODE
  await 60 has_no_services "$1"
}
has_no_services() { ! on "$1" ps -eo comm= | grep -qxE 'smbd|tavrix-sweeper|ctdbd'; }

# --- in the hub: the state of the cluster --------------------------------------------------------

# A node that can be asked.
any_node() {
  local node
  for node in "${nodes[@]}"; do
    if is_powered "$node" && on "$node" ctdb pnn >/dev/null 2>&1; then echo "$node" && return; fi
  done
  return 1
}

healthy_nodes() {
  local asked
  asked=$(any_node) || { echo 0; return; }
  on "$asked" ctdb -X status 2>/dev/null |
    awk -F'|' 'NR > 1 && $4 + $5 + $6 + $7 + $8 + $9 + $10 == 0 {n++} END {print n + 0}'
}
are_healthy() { [ "$(healthy_nodes)" -ge "$1" ]; }
await_healthy() { await "${2:-120}" are_healthy "${1:-3}" || { show_troubles >&2; return 1; }; }

# The nodes whose interface has that address, a number each.
holders() {  # ADDRESS
  local node
  for node in "${nodes[@]}"; do
    if is_powered "$node" && on "$node" ip -brief addr show dev eth0 | grep -qF " $1/"; then echo "$node"; fi
  done
}

show_state() {
  local asked
  asked=$(any_node) || { echo "no node answers"; return; }
  on "$asked" ctdb status | grep -E '^pnn' || true
  on "$asked" ctdb ip | tail -n +2 || true
}

# For a person who asks why the cluster is not healthy.
show_troubles() {
  show_state
  local node
  for node in "${nodes[@]}"; do
    is_powered "$node" || continue
    on "$node" ctdb scriptstatus 2>/dev/null | grep -v ' OK ' || true
    tail -n 3 "$cluster/disk$node/log/ctdb/log.ctdb" 2>/dev/null || true
  done
}

# --- in the hub: clients and maps ----------------------------------------------------------------

smb() {  # ADDRESS USER COMMANDS   (commands of smbclient)
  timeout 30 smbclient -s "$cluster/client.conf" "//$1/tavrix" -U "$2%$2" -c "$3"
}

# Hands a pair over as the agent does: whole files, renamed into place.
hand_over() {  # NODE FOLDER
  on "$1" bash -euo pipefail -c '
    for name in size data; do cp "$0/$name.json" "/var/lib/tavrix/maps/.$name"; done
    for name in size data; do mv "/var/lib/tavrix/maps/.$name" "/var/lib/tavrix/maps/$name.json"; done' "$2"
}

generation_on() {  # NODE
  on "$1" tavrixctl --json map info 2>/dev/null |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["map"]["generation"])' 2>/dev/null || echo none
}

# With the daemon that keeps all nodes at one map a pair is handed over once.
hand_over_to_all() {  # FOLDER
  local node
  for node in "${nodes[@]}"; do
    is_powered "$node" || continue
    hand_over "$node" "$1"
    [ ! -x "$cluster_build/tools/tavrix-clusterd" ] || return 0
  done
}

# --- in the hub: how a node is set up ------------------------------------------------------------

make_shared_tree() {
  mkdir -p "$cluster"/{shared,log,bin}
  mkdir -p "$cluster/shared"/{.ctdb,.conf/staging,.conf/auditing}
  mkdir -p "$cluster/shared/Shared"/{Design/{Drafts,Board,Gallery},Finance} "$cluster/shared/Private"/{anna,ben}
  echo "The plan." >"$cluster/shared/Shared/Design/plan.txt"
  chown -R 1005 "$cluster/shared/Private/anna"
  chown -R 1006 "$cluster/shared/Private/ben"
  chmod 0700 "$cluster/shared/Shared" "$cluster/shared/Private"
  stand_in_for_health
  printf '[global]\n  workgroup = TAVRIX\n  lock directory = %s/log\n' "$cluster" >"$cluster/client.conf"
}

# A build without "tavrixctl health" gets a small one here: the settings, the buffer and the sweeper.
stand_in_for_health() {
  ! "$cluster_build/tools/tavrixctl" health --help >/dev/null 2>&1 || return 0
  cat >"$cluster/bin/tavrixctl" <<STAND_IN
#!/bin/sh
[ "\$1" = health ] || exec $cluster_build/tools/tavrixctl "\$@"
kill -0 "\$(cat /run/tavrix/sweeper.pid)" 2>/dev/null || { echo "tavrix-sweeper does not run"; exit 1; }
$cluster_build/tools/tavrixctl events buffer show >/dev/null 2>&1 || { echo "there is no staging buffer"; exit 1; }
STAND_IN
  chmod +x "$cluster/bin/tavrixctl"
}

# A build without tavrix-clusterd gets a small part of it here: the state that a node tells every second.
stand_in_for_state() {  # NODE
  mkdir -p /tavrix/.conf/cluster/nodes
  while :; do
    echo '{}' >"/tavrix/.conf/cluster/nodes/.$1"
    mv "/tavrix/.conf/cluster/nodes/.$1" "/tavrix/.conf/cluster/nodes/$1.json"
    sleep 1
  done
}

configure_ctdb() {
  local node
  for node in "${nodes[@]}"; do echo "$network.$node"; done >/etc/ctdb/nodes
  printf '%s/24 eth0\n' "${public_addresses[@]}" >/etc/ctdb/public_addresses
  cat >/etc/ctdb/ctdb.conf <<'CONF'
[logging]
  location = file:/var/log/ctdb/log.ctdb
  log level = NOTICE
[cluster]
  cluster lock = /tavrix/.ctdb/reclock
  leader timeout = 3
[legacy]
  realtime scheduling = false
  script log level = NOTICE
CONF
  # Short times: a person, and a test, waits for each of them.
  cat >/etc/ctdb/ctdb.tunables <<'CONF'
MonitorInterval=2
KeepaliveInterval=1
KeepaliveLimit=3
ElectionTimeout=1
RerecoveryTimeout=2
CONF
  cp "$cluster_sources"/cluster/events/*.script "$cluster_sources/scripts/lib/cluster_smbd.script" /etc/ctdb/events/legacy/
  mv /etc/ctdb/events/legacy/cluster_smbd.script /etc/ctdb/events/legacy/50.smbd.script
  chmod +x /etc/ctdb/events/legacy/*.script
}

configure_samba() {
  mkdir -p "$samba_modules/vfs" /var/lib/samba/private
  cp "$cluster_build/samba/tavrix.so" "$samba_modules/vfs/tavrix.so"
  [ -e "$samba_modules/libsamdb-common.so.0" ] ||
    ln -s libsamdb-common-samba4.so.0 "$samba_modules/libsamdb-common.so.0"
  local file user
  for file in passwd group shadow; do
    [ ! -L "/etc/$file" ] || cp --remove-destination "$(readlink -f "/etc/$file")" "/etc/$file"
  done
  for user in "${cluster_users[@]}"; do
    grep -q "^${user%%:*}:" /etc/passwd || echo "${user%%:*}:x:${user##*:}:9003::/:/bin/false" >>/etc/passwd
  done
  cat >/etc/samba/smb.conf <<'CONF'
[global]
  clustering = yes
  netbios name = TAVRIX
  server role = standalone server
  workgroup = TAVRIX
  smb ports = 445
  disable netbios = yes
  disable spoolss = yes
  load printers = no
  printing = bsd
  printcap name = /dev/null
  map to guest = never
  passdb backend = tdbsam
  log file = /var/log/samba/smbd.log
  log level = 0
  debug uid = yes
  max log size = 0

[tavrix]
  path = /tavrix
  read only = no
  hide dot files = no
  case sensitive = yes
  aio read size = 0
  aio write size = 0
  nt acl support = yes
  vfs objects = fileid tavrix
  fileid:algorithm = fsname
  tavrix:reserved user = syncagent
  tavrix:audit = yes
CONF
}

configure_services() {  # NODE
  mkdir -p /etc/tavrix /var/lib/tavrix/maps
  cp "$cluster_sources/packaging/exception_patterns" /etc/tavrix/
  python3 "$cluster_sources/scripts/lib/cluster_settings.py" "$cluster_sources/packaging/tavrix.conf" \
    "VFS:debug level=-1" "VFS:default user=0" "VFS:default group=0" "SWEEPER:flush period=1" \
    "CLUSTER:enabled=yes" >/etc/tavrix/tavrix.conf
  cat >"$cluster/groups.json" <<'JSON'
{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
 "users": {"admin": [9001], "anna": [9002, 9010], "ben": [9002, 9011], "standard": [9010]}}
JSON
  "$cluster_build/tools/tavrixctl" groupmap build "$cluster/groups.json" -o /etc/tavrix/groupmap_refresh >/dev/null
  touch /etc/tavrix/permission_refresh
}

configure_node() {  # NODE
  configure_ctdb
  configure_samba
  configure_services "$1"
}

# Users are in a database that all nodes share.
add_cluster_users() {
  local user
  for user in "${cluster_users[@]}"; do
    printf '%s\n%s\n' "${user%%:*}" "${user%%:*}" | on 1 smbpasswd -s -a "${user%%:*}" >/dev/null
  done
}

# From an empty hub to three healthy nodes with users and a map.
bring_up() {
  make_shared_tree
  local node
  for node in "${nodes[@]}"; do start_node "$node"; done
  await_healthy 3
  add_cluster_users
  hand_over_to_all "$cluster_sources/examples/team"
  await 60 have_one_map
}

have_one_map() {
  local node first=
  for node in "${nodes[@]}"; do
    is_powered "$node" || continue
    [ -n "$first" ] || first=$(generation_on "$node")
    [ "$first" != none ] && [ "$(generation_on "$node")" = "$first" ] || return 1
  done
}

# A shell on a node; without one, beside the clients, with the functions of this file.
open_shell() {  # [NODE]
  if [ -n "${1:-}" ]; then
    on "$1" bash -i || true
  else
    bash --rcfile <(echo "source $cluster_sources/scripts/lib/cluster.sh; PS1='clients# '") -i || true
  fi
}
