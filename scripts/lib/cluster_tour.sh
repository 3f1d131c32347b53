# SPDX-License-Identifier: LGPL-3.0-or-later
# Shows a person what the test cluster does: cluster_tour.sh, in the hub of a cluster that is up.
set -euo pipefail
source "$(dirname "$0")/cluster.sh"
marker=$cluster/shared/.conf/tavrix_event_status.dirty

title() { printf '\n\033[1m%s\033[0m\n' "$*"; }
command_line() { printf '\033[2m%s#\033[0m %s\n' "$1" "$2"; }
on_node() {  # NODE COMMAND...: shows the command and its output
  command_line "node$1" "${*:2}"
  on "$@" 2>&1 | sed 's/^/    /' || true
}
as_client() {  # ADDRESS USER COMMANDS
  command_line "$2 at $1" "$3"
  smb "$1" "$2" "$3" 2>&1 | grep -vE 'blocks (of size|available)|^$|^  \.\.? ' | sed 's/^/    /' || true
}
since() { awk -v begin="$1" -v end="$EPOCHREALTIME" 'BEGIN {printf "%.1f s", end - begin}'; }
show_marker() { echo "    the agent reads: $(tr -d '\0' <"$marker")"; }
one_holder_each() {
  local address
  for address in "${public_addresses[@]}"; do [ "$(holders "$address" | wc -l)" = 1 ] || return 1; done
}

title "1. Three nodes, one tree: CTDB gives each of them an address"
on_node 1 ctdb status | grep -E '#|pnn'
on_node 1 ctdb ip

title "2. A map that is handed to one node is current on all"
mkdir -p "$cluster/newer"
cp "$cluster_sources/examples/team/size.json" "$cluster/newer/"
# The readers of Design may write there.
sed 's/"9011": 1/"9011": 3/' "$cluster_sources/examples/team/data.json" >"$cluster/newer/data.json"
as_client "${public_addresses[0]}" ben "put $cluster/client.conf Shared\\Design\\from_ben.txt"
hand_over_to_all "$cluster/newer"
may_ben_write() {
  local node
  for node in "${nodes[@]}"; do
    on "$node" tavrixctl check --user ben create Shared/Design/from_ben.txt >/dev/null 2>&1 || return 1
  done
}
begin=$EPOCHREALTIME
await 60 may_ben_write
echo "    current on all nodes after $(since "$begin")"
as_client "${public_addresses[1]}" ben "put $cluster/client.conf Shared\\Design\\from_ben.txt; ls Shared\\Design\\*"

title "3. The power of a node is cut: its address moves, and the agent is told what is lost"
rm -f "$marker"
node=$(holders "${public_addresses[0]}")
echo "    node$node holds ${public_addresses[0]}"
as_client "${public_addresses[0]}" anna "put $cluster/client.conf Shared\\Design\\from_anna.txt"
power_off "$node"
begin=$EPOCHREALTIME
await 60 one_holder_each
echo "    the address is on node$(holders "${public_addresses[0]}") after $(since "$begin")"
as_client "${public_addresses[0]}" anna "ls Shared\\Design\\*"
await 60 test -e "$marker"
echo "    told after $(since "$begin"), by a node that lives"
show_marker

title "4. The node comes back"
rm -f "$marker"
begin=$EPOCHREALTIME
start_node "$node"
await_healthy 3
echo "    three healthy nodes after $(since "$begin")"
on_node "$node" ctdb status | grep -E '#|pnn'

title "5. A node is taken out in order: nothing is lost, and nobody asks for a rescan"
command_line "node$node" "ctdb shutdown"
stop_ctdb "$node"
await_end_of_services "$node"
await 60 one_holder_each
[ -e "$marker" ] && show_marker || echo "    there is no marker"
start_ctdb "$node"
await_healthy 3
on_node 1 ctdb status | grep -E '#|pnn'
echo
echo "scripts/cluster.sh shell looks around, scripts/cluster.sh down ends everything"
