# SPDX-License-Identifier: LGPL-3.0-or-later
# Measures the module inside a private world: bench_samba_world.sh SOURCES BUILD RESULTS ROUNDS
# Writes lines "map operation variant nanoseconds" to RESULTS.
set -euo pipefail
sources=$1
build=$2
results=$3
rounds=$4
export PATH=$build/tools:$PATH
source "$sources/scripts/lib/samba_world.sh"

entries=10000
files=2000

publish_map() {  # FOLDERS; 0: the small example
  if [ "$1" = 0 ]; then
    cp "$sources"/examples/team/*.json /scratch/
  else
    tavrix-sample-tree --folders "$1" /scratch/size.json /scratch/data.json >/dev/null
  fi
  tavrixctl map import --trust /scratch/size.json /scratch/data.json >/dev/null
}

# Makes the files below a folder of the map that also has folders of the map in it.
make_tree() {  # FOLDER
  rm -rf /tavrix/Shared
  team=$1
  mkdir -p "/tavrix/Shared/$team"/{list,put}
  (cd "/tavrix/Shared/$team/list" && seq -f 'entry%05g.txt' $entries | xargs touch)
  chmod -R 0777 /tavrix/Shared  # the server without the module needs it
}

with_variant() {  # VARIANT MAP
  local variant=$1 map=$2
  if [ "$variant" = with ]; then write_smb_conf tavrix; else write_smb_conf ""; fi
  start_smbd
  rm -f "/tavrix/Shared/$team/put/"*
  "$sources/scripts/lib/bench_samba_cost.py" "$team" $entries $files >/scratch/costs
  while read -r operation nanoseconds; do
    echo "$map $operation $variant $nanoseconds" >>"$results"
  done </scratch/costs
  stop_smbd
}

# --- the world ---

prepare_samba_world "$build/samba/tavrix.so"
write_smb_conf ""
add_samba_user anna 1005 9003
echo "some data" >/scratch/data.txt
load_settings '{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002}, "users": {"anna": [9001, 9002]}}'
setsid tavrix-sweeper --foreground 2>/dev/null &
sweeper=$!
trap 'kill "$sweeper"; stop_smbd' EXIT
for map in 0 1000000; do
  publish_map $map
  make_tree "$(tavrixctl map tree --depth 2 | sed -n '3s/^ *\(.*\)  (.*/\1/p')"
  for ((round = 0; round < rounds; ++round)); do
    with_variant without $map
    with_variant with $map
  done
done
