#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Three nodes with CTDB and Samba on this machine, for a person to try: each has its own processes, network
# and shared memory, and all serve one tree. Installs what is missing and builds.
#
#   up             starts the cluster
#   tour           starts it if it is down, and shows what it does
#   shell [NODE]   a shell on a node, 1 to 3, or beside the clients
#   down           ends everything; nothing stays on the machine
# usage: scripts/cluster.sh up|tour|shell [NODE]|down
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/cluster.sh
require_root

start() {
  if hub_is_up; then
    echo "the cluster is up; scripts/cluster.sh down ends it" >&2
    return
  fi
  install_packages "${tavrix_packages[@]}" "${tavrix_samba_packages[@]}"
  install_cluster_packages
  cmake --preset release >/dev/null
  cmake --build --preset release | tail -n 1
  start_hub
  echo "three nodes start; this takes half a minute"
  hub_do bring_up || { hub_do show_troubles >&2; stop_hub; return 1; }
  hub_do show_state
}

case ${1:-} in
  up)
    start
    echo "try: scripts/cluster.sh shell, and in it: smb ${public_addresses[0]} anna 'ls Shared\\*'"
    ;;
  tour)
    start
    in_hub env TAVRIX_CLUSTER="$cluster" bash scripts/lib/cluster_tour.sh
    ;;
  shell)
    hub_is_up || { echo "the cluster is down; scripts/cluster.sh up starts it" >&2; exit 1; }
    hub_do open_shell "${2:-}"
    ;;
  down) stop_hub ;;
  *)
    sed -n 's/^# usage/usage/p' "$0" >&2
    exit 2
    ;;
esac
