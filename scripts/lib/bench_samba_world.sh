# SPDX-License-Identifier: LGPL-3.0-or-later
# Measures the module inside a private world: bench_samba_world.sh SOURCES BUILD RESULTS
# scripts/bench-samba.sh sets the variables bench_...; each part of bench_parts writes a file of that name
# in the folder RESULTS, with lines "map variant ...".
set -euo pipefail
sources=$1
build=$2
results=$3
export PATH=$build/tools:$PATH
source "$sources/scripts/lib/samba_world.sh"

crowd_entries=1000
crowd_files=20
listed_when_counting=1000  # as many as a connection's verdict cache holds

# --- maps and trees ---

publish_map() {  # NAME
  rm -rf /scratch/map
  mkdir /scratch/map
  if [ "$1" = small ]; then
    cp "$sources"/examples/team/*.json /scratch/map/
  else
    tavrix-sample-tree --folders 1000000 /scratch/map/size.json /scratch/map/data.json >/dev/null
  fi
  tavrixctl map import --trust /scratch/map/size.json /scratch/map/data.json >/dev/null
  # A folder of the map that also has folders of the map in it.
  team=$(tavrixctl map tree --depth 2 | sed -n '3s/^ *\(.*\)  (.*/\1/p')
}

make_tree() {  # ENTRIES
  rm -rf /tavrix/Shared
  mkdir -p "/tavrix/Shared/$team"/{list,empty,put}
  (cd "/tavrix/Shared/$team/list" && seq -f 'entry%05g.txt' "$1" | xargs touch)
  chmod -R 0777 /tavrix/Shared/*  # a server without the module needs it
}

# --- the server's variants ---

# An audit as administrators set it up: every change and every opened file, one line each.
audited="connect disconnect create_file openat pwrite mkdirat renameat unlinkat"
full_audit=("full_audit:prefix = %u|%I|%S" "full_audit:facility = local5" "full_audit:priority = notice"
  "full_audit:success = $audited" "full_audit:failure = $audited")

start_variant() {  # VARIANT
  local level=-1
  case $1 in
    tavrix | messages) chmod 0700 /tavrix/Shared ;;  # clients reach nothing by themselves, as docs/appliance.md says
    *) chmod 0777 /tavrix/Shared ;;
  esac
  case $1 in
    bare) write_smb_conf "" ;;
    tavrix) write_smb_conf tavrix ;;
    messages) write_smb_conf tavrix && level=0 ;;
    hide) write_smb_conf "" "hide unreadable = yes" ;;
    audit) write_smb_conf full_audit "${full_audit[@]}" ;;
    both) write_smb_conf full_audit "${full_audit[@]}" "hide unreadable = yes" ;;
  esac
  tavrixctl config set "VFS:debug level" $level
  start_smbd
}

# The peers do not know the map, so they are measured beside the small one.
variants_for() {  # MAP PEERS
  echo bare tavrix
  [ "$1" = large ] || echo "$2"
}

# --- the parts ---

# Runs a program of scripts/lib with a fresh server and fresh files, and keeps its lines.
with_server() {  # PART MAP VARIANT PROGRAM [ARGUMENT]...
  local part=$1 map=$2 variant=$3 program=$4
  shift 4
  echo "$part, $map map, $variant" >&2
  rm -f "/tavrix/Shared/$team/put/"*
  start_variant "$variant"
  "$sources/scripts/lib/$program" anna "$team" "$@" >/scratch/lines
  stop_smbd
  sed "s/^/$map $variant /" /scratch/lines >>"$results/$part"
}

costs() {  # MAP
  local round variant
  make_tree "$bench_entries"
  for ((round = 0; round < bench_rounds; ++round)); do
    for variant in $(variants_for "$1" "$bench_peers"); do
      with_server costs "$1" "$variant" bench_samba_cost.py "$bench_entries" "$bench_files"
    done
  done
}

counts() {  # MAP
  local variant
  make_tree $listed_when_counting
  for variant in $(variants_for "$1" "$bench_counted_peers"); do
    # shellcheck disable=SC2086  # a list of words
    with_server counts "$1" "$variant" bench_samba_calls.py $listed_when_counting $bench_operations
  done
}

# The large map is swapped meanwhile.
crowds() {  # MAP
  local round connections variant swapped=-
  [ "$1" = small ] || swapped=/scratch/map
  make_tree "$crowd_entries"
  mkdir "/tavrix/Shared/$team"/{0..99}
  chmod 0777 "/tavrix/Shared/$team"/{0..99}
  for ((round = 0; round < bench_crowd_rounds; ++round)); do
    for connections in 10 100; do
      for variant in bare tavrix; do
        with_server crowds "$1" "$variant" bench_samba_crowd.py "$crowd_entries" "$connections" \
          $((bench_crowd_passes / connections)) $crowd_files "$swapped"
      done
    done
  done
}

# --- the world ---

# Gives the system log a socket and a reader, in this world only: sending has its real price then.
start_log() {
  mkdir /.dev
  mount --rbind /dev /.dev
  mount -t tmpfs -o mode=0755 tmpfs /dev
  local entry
  for entry in /.dev/*; do
    [ "$entry" = /.dev/log ] || ln -s "$entry" "/dev/${entry#/.dev/}"
  done
  setsid "$sources/scripts/lib/drain_log.py" /dev/log &
  drain=$!
  while [ ! -S /dev/log ]; do sleep 0.01; done
}

prepare_samba_world "$build/samba/tavrix.so"
write_smb_conf ""
add_samba_user anna 1005 9003
echo "some data" >/scratch/data.txt
load_settings '{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002}, "users": {"anna": [9001, 9002]}}'
start_log
setsid tavrix-sweeper --foreground 2>/dev/null &
sweeper=$!
trap 'kill "$sweeper" "$drain"; stop_smbd' EXIT
for map in $bench_maps; do
  publish_map "$map"
  for part in $bench_parts; do $part "$map"; done
done
