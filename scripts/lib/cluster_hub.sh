# SPDX-License-Identifier: LGPL-3.0-or-later
# The hub of the test cluster (see cluster.sh): a switch, and a disk in memory. Process 1 of its own
# namespaces; everything in them ends with it.
set -euo pipefail
source "$(dirname "$0")/cluster.sh"
mount --make-rprivate /
mount -t proc proc /proc
mount -t tmpfs -o mode=0755 tmpfs "$cluster"
hostname hub
ip link set lo up
ip link add br0 type bridge
ip link set br0 up
ip addr add $network.254/24 dev br0
touch "$cluster/ready"
while :; do
  sleep 3600 &
  wait $! || true
done
