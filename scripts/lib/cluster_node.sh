# SPDX-License-Identifier: LGPL-3.0-or-later
# One node of the test cluster: cluster_node.sh NUMBER. Runs as process 1 in net, mount, IPC, PID and
# UTS namespaces of its own, which cluster.sh makes. Ends when it is killed, as a machine does whose
# power is cut: its memory is gone, its disk and the shared tree stay.
set -euo pipefail
number=$1
source "$(dirname "$0")/cluster.sh"
disk=$cluster/disk$number

# Changes below a folder go to the node's disk.
keep_changes_of() {  # FOLDER
  local name=${1//\//_}
  mkdir -p "$disk/upper$name" "$disk/work$name"
  mount -t overlay overlay -o "lowerdir=$1,upperdir=$disk/upper$name,workdir=$disk/work$name" "$1"
}

mount --make-rprivate /
mount -t proc proc /proc
hostname "node$number"
# Each start is another run of the machine, also for those who ask the kernel.
cat /proc/sys/kernel/random/uuid >"$cluster/boot$number"
mount --bind "$cluster/boot$number" /proc/sys/kernel/random/boot_id

for folder in /etc /var/lib /var/cache "$samba_modules"; do keep_changes_of "$folder"; done
mkdir -p "$disk/log"
mount --bind "$disk/log" /var/log
mount -t tmpfs tmpfs /run
mkdir -p /run/{ctdb,samba,tavrix,lock} /var/log/{ctdb,samba}
mkdir -p /tavrix
mount --bind "$cluster/shared" /tavrix

[ -e "$disk/configured" ] || { configure_node "$number"; touch "$disk/configured"; }

ip link set lo up
until ip link show eth0 >/dev/null 2>&1; do sleep 0.05; done
ip addr add "$network.$number/24" dev eth0
ip link set eth0 up
[ -x "$cluster_build/tools/tavrix-clusterd" ] || stand_in_for_state "node$number" &
touch "$cluster/up$number"
# Process 1 reaps the others: ctdb waits for children of its that another process should reap.
while :; do
  sleep 3600 &
  wait $! || true
done
