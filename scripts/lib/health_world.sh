# SPDX-License-Identifier: LGPL-3.0-or-later
# Measures "tavrixctl health" inside a private world: health_world.sh SOURCES BUILD
set -euo pipefail
sources=$1
export PATH=$2/tools:$PATH

cp "$sources"/packaging/{tavrix.conf,exception_patterns} /etc/tavrix/
mkdir -p /tavrix/.conf/{staging,auditing}
tavrixctl config load /etc/tavrix/tavrix.conf
cp "$sources"/examples/team/*.json /scratch/
tavrixctl map import /scratch/size.json /scratch/data.json >/dev/null 2>&1
tavrix-sweeper --foreground 2>/scratch/sweeper.log &
sweeper=$!
trap 'kill $sweeper' EXIT
until grep -q 'flushing every' /scratch/sweeper.log; do sleep 0.05; done

tavrixctl health
calls=200
TIMEFORMAT='%R %U %S'
times=$({ time for ((i = 0; i < calls; ++i)); do tavrixctl health >/dev/null; done; } 2>&1)
read -r clock user kernel <<<"$times"
awk -v n=$calls -v c="$clock" -v u="$user" -v k="$kernel" \
  'BEGIN { printf "a call of health: %.1f ms, of which %.1f ms of processor time\n", c / n * 1000, (u + k) / n * 1000 }'
strace -c -o /scratch/calls tavrixctl health >/dev/null
printf 'system calls: %s, processes on the machine: %s\n' "$(awk '$NF == "total" { print $4 }' /scratch/calls)" \
  "$(find /proc -maxdepth 1 -name '[0-9]*' | wc -l)"
