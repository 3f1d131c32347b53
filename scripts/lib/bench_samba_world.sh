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

script_of() {  # OPERATION
  case $1 in
    list) printf 'cd "Shared\\'"$team"'\\list"\nls\n' ;;
    list-again) printf 'cd "Shared\\'"$team"'\\list"\nls\nls\n' ;;
    put) printf 'cd "Shared\\'"$team"'\\put"\n' && seq -f 'put /scratch/data.txt f%g' $files ;;
    get) printf 'cd "Shared\\'"$team"'\\put"\n' && seq -f 'get f%g /dev/null' $files ;;
    rename) printf 'cd "Shared\\'"$team"'\\put"\n' && seq $files | sed 's/.*/rename f& g&/' ;;
    delete) printf 'cd "Shared\\'"$team"'\\put"\n' && seq -f 'rm g%g' $files ;;
  esac
}

# Prints the CPU nanoseconds of all threads of a process.
cpu_of() { cat /proc/"$1"/task/*/schedstat | awk '{ sum += $1 } END { printf "%d", sum }'; }

# Prints the process that serves the one client: the youngest of the server's session.
server_of_client() { pgrep -n -s "$(cat $samba_folder/smbd.pid)"; }

measure() {  # OPERATION: prints nanoseconds
  script_of "$1" >/scratch/commands
  mkfifo /scratch/in
  smbclient -s $samba_folder/smb.conf //127.0.0.1/tavrix -U anna%anna </scratch/in >/scratch/out 2>&1 &
  local client=$!
  exec 9>/scratch/in
  sleep 0.4
  local server before after
  server=$(server_of_client)
  before=$(cpu_of "$server")
  cat /scratch/commands >&9
  # After the last command the client makes a file. Empty lines wake it meanwhile.
  sleep 0.05
  echo '!touch /scratch/finished' >&9
  echo >&9
  while [ ! -e /scratch/finished ]; do
    sleep 0.05
    echo >&9
  done
  after=$(cpu_of "$server")
  exec 9>&-
  wait $client || true
  rm -f /scratch/in /scratch/finished
  echo $((after - before))
}

with_variant() {  # VARIANT MAP
  local variant=$1 map=$2 operation
  if [ "$variant" = with ]; then write_smb_conf tavrix; else write_smb_conf ""; fi
  start_smbd
  rm -f "/tavrix/Shared/$team/put/"*
  for operation in list list-again put get rename delete; do
    echo "$map $operation $variant $(measure $operation)" >>"$results"
  done
  stop_smbd
}

prepare_samba_world "$build/samba/tavrix.so"
write_smb_conf ""
add_samba_user anna 1005 9003
echo "some data" >/scratch/data.txt
load_settings '{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002}, "users": {"anna": [9001, 9002]}}'
setsid tavrix-sweeper --foreground 2>/dev/null &
sweeper=$!
for map in 0 1000000; do
  publish_map $map
  make_tree "$(tavrixctl map tree --depth 2 | sed -n '3s/^ *\(.*\)  (.*/\1/p')"
  for ((round = 0; round < rounds; ++round)); do
    with_variant without $map
    with_variant with $map
  done
done
kill "$sweeper"
