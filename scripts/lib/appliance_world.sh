# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs the appliance inside a private world: appliance_world.sh SOURCES BUILD [--shell]
set -euo pipefail
sources=$1
build=$2
mode=${3:-}
export PATH=$build/tools:$PATH
source "$sources/scripts/lib/samba_world.sh"

maps=/scratch/maps
history=/scratch/history/history.db
staging=/tavrix/.conf/staging
users=(admin:1001 anna:1005 ben:1006 standard:1002 syncagent:1008)
names=("${users[@]/:/=}")

title() { printf '\n\033[1m%s\033[0m\n' "$*"; }
show() {  # USER COMMANDS: shows the user's commands and the server's answers
  printf '\033[2m%s$\033[0m %s\n' "$1" "$2"
  smb "$1" "$2" 2>&1 | grep -vE 'blocks (of size|available)|^$|^  \.\.? ' | sed 's/^/    /' || true
}

# --- settings, map, sweeper, server ---

start_services() {
  cp "$sources/packaging/exception_patterns" /etc/tavrix/
  tavrixctl config load "$sources/packaging/tavrix.conf"
  tavrixctl config set "VFS:debug level" -1
  tavrixctl config set "VFS:default user" 0
  tavrixctl config set "VFS:default group" 0
  tavrixctl config set "SWEEPER:flush period" 1
  mkdir -p $maps /tavrix/.conf/{staging,auditing}
  touch /etc/tavrix/permission_refresh
  cat >/scratch/groups.json <<'JSON'
{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
 "users": {"admin": [9001], "anna": [9002, 9010], "ben": [9002, 9011], "standard": [9010]}}
JSON
  tavrixctl groupmap build /scratch/groups.json -o /etc/tavrix/groupmap_refresh
  sed "s|^database = .*|database = $history|" "$sources/packaging/tavrix.conf" >/scratch/historian.conf
  setsid tavrix-historian --settings /scratch/historian.conf 2>/scratch/historian.log &
  echo $! >/scratch/historian.pid
  setsid tavrix-sweeper --foreground 2>/scratch/sweeper.log &
  echo $! >/scratch/sweeper.pid
  setsid tavrix-loader --dir $maps 2>/scratch/loader.log &
  echo $! >/scratch/loader.pid
  hand_over "$sources/examples/team"
}

# Hands a map over as the agent does: whole files, renamed into place. Prints the loader's answer.
hand_over() {
  local before
  before=$(wc -l </scratch/loader.log)
  cp "$1/size.json" $maps/.size.new
  cp "$1/data.json" $maps/.data.new
  mv $maps/.size.new $maps/size.json
  mv $maps/.data.new $maps/data.json
  local try
  for try in {1..100}; do
    [ "$(wc -l </scratch/loader.log)" -le "$before" ] || { tail -n +$((before + 1)) /scratch/loader.log; return; }
    sleep 0.05
  done
}

make_tree() {
  mkdir -p /tavrix/Shared/Design/{Drafts,Board,Gallery} /tavrix/Shared/Finance /tavrix/Private/{anna,ben}
  echo "The plan." >/tavrix/Shared/Design/plan.txt
  echo "The budget." >/tavrix/Shared/Finance/budget.txt
  echo "Dear diary." >/tavrix/Private/anna/diary.txt
  chown -R 1005 /tavrix/Private/anna
  chown -R 1006 /tavrix/Private/ben
  chmod 0700 /tavrix/Shared /tavrix/Private  # a client's own identity reaches nothing here
}

start_server() {
  prepare_samba_world "$build/samba/tavrix.so"
  write_smb_conf tavrix "tavrix:reserved user = syncagent" "tavrix:audit = yes"
  local user
  for user in "${users[@]}"; do add_samba_user "${user%%:*}" "${user##*:}" 9003; done
  start_smbd
}

stop_everything() {
  stop_smbd
  kill "$(cat /scratch/loader.pid)" "$(cat /scratch/sweeper.pid)" "$(cat /scratch/historian.pid)" 2>/dev/null || true
  while kill -0 "$(cat /scratch/sweeper.pid)" 2>/dev/null; do sleep 0.05; done
  tavrixctl map remove --yes || true
  tavrixctl events buffer remove --yes || true
  tavrixctl config remove --yes || true
}

# --- the tour ---

side_by_side() {  # FOLDER: shows its entries as each user sees them
  local user
  for user in "${users[@]}"; do
    {
      echo "${user%%:*}"
      echo "--------"
      smb "${user%%:*}" "ls \"$1\\*\"" 2>&1 | sed -nE 's/^  ([^ ]+) .*/\1/p; s/^(NT_STATUS_[A-Z_]+).*/(\1)/p' |
        grep -vE '^\.\.?$' || true
    } >"/scratch/column.${user%%:*}"
  done
  (cd /scratch && paste column.admin column.anna column.ben column.standard column.syncagent |
    awk -F'\t' '{ printf "    "; for (i = 1; i <= 5; ++i) printf "%-26s", $i; print "" }')
}

events_so_far() {
  sleep 1.2  # the sweeper's period
  tavrixctl events decode $staging/pending_* 2>/dev/null |
    "$sources/scripts/lib/brief.py" "${names[@]}" | sed 's/^/    /' || true
  rm -f $staging/pending_*
}

tour() {
  title "1. Everybody in the same folder: the map decides what is seen"
  echo "  Shared:"
  side_by_side 'Shared'
  echo "  Shared\\Design:"
  side_by_side 'Shared\Design'

  title "2. Anna works in her team's folder"
  echo "What was said today." >/scratch/today.txt
  show anna 'cd Shared\Design; mkdir Minutes; put /scratch/today.txt Minutes\today.txt'
  show anna 'cd Shared\Design; rename Minutes\today.txt notes.txt; ls'
  show anna 'cd Shared\Design; rmdir Minutes; rm notes.txt'
  echo "  events in the staging directory:"
  events_so_far

  title "3. Others are refused what they may not do"
  show ben 'cd Shared\Design; get plan.txt /scratch/got; put /scratch/today.txt plan.txt'
  show ben 'get Private\anna\diary.txt /scratch/got'
  show standard 'ls Shared\*'
  show syncagent 'put /scratch/today.txt Shared\Finance\from_the_cloud.txt'
  echo "  events (the agent's own work is not told to the agent):"
  events_so_far
  echo "  who read what:"
  tavrixctl audit decode /tavrix/.conf/auditing/pending_* 2>/dev/null |
    "$sources/scripts/lib/brief.py" "${names[@]}" | sed 's/^/    /'

  title "4. A new map, while a client is connected: Ben becomes a writer of Design"
  new_map
  {
    echo 'cd Shared\Design'
    sleep 0.5
    echo 'put /scratch/today.txt from_ben.txt'
    sleep 0.5
    echo '!echo "    (a new map is handed over)"'
    sleep 0.2
    hand_over /scratch/newer >/scratch/handed 2>&1
    sleep 1.2
    echo 'put /scratch/today.txt from_ben.txt'
    sleep 0.5
  } | stdbuf -o0 smbclient -s $samba_folder/smb.conf //127.0.0.1/tavrix -U ben%ben 2>&1 |
    grep -vE '^Try' | sed 's/^/    /'
  sed 's/^/  loader: /' /scratch/handed
  events_so_far

  title "5. A map that is broken is set aside"
  mkdir -p /scratch/broken
  cp "$sources/examples/team/size.json" /scratch/broken/
  sed 's/"NUMCHILDREN": 2/"NUMCHILDREN": 7/' "$sources/examples/team/data.json" >/scratch/broken/data.json
  hand_over /scratch/broken | head -n 3 | sed 's/^/  loader: /'
  tavrixctl map info | sed 's/^/    /'

  title "6. A file is gone: the history knows who deleted it, by the first name of the file"
  show anna 'cd Shared\Design; mkdir Plans; put /scratch/today.txt Plans\summer.txt'
  show ben 'cd Shared\Design; rename Plans Old; rename Old Older; rm Older\summer.txt'
  until_the_history_has 'Shared\Design\Older\summer.txt'
  printf '\033[2madministrator$\033[0m %s\n' 'tavrixctl history file "Shared\Design\Plans\summer.txt"'
  tavrixctl history file 'Shared\Design\Plans\summer.txt' --database $history | sed 's/^/    /'
  printf '\033[2madministrator$\033[0m %s\n' 'tavrixctl history search --user ben --op delete,rename'
  tavrixctl history search --user ben --op delete,rename --database $history | sed 's/^/    /'
}

# Waits until a deletion has come through the sweeper's flush into the history.
until_the_history_has() {
  local try
  for try in {1..100}; do
    tavrixctl history search --path "$1" --op delete --database $history >/dev/null 2>&1 && return
    sleep 0.1
  done
}

# The readers of Design may write there.
new_map() {
  mkdir -p /scratch/newer
  cp "$sources/examples/team/size.json" /scratch/newer/
  sed 's/"9011": 1/"9011": 3/' "$sources/examples/team/data.json" >/scratch/newer/data.json
}

start_services
make_tree
start_server
title "The share is up: //127.0.0.1/tavrix in this world"
echo "users: ${users[*]%%:*}; the password is the name"
if [ "$mode" = --shell ]; then
  echo "try: smbclient -s $samba_folder/smb.conf //127.0.0.1/tavrix -U anna%anna"
  echo "     tavrixctl map tree, tavrixctl events buffer show, tail /scratch/loader.log"
  echo "leave the shell to stop everything"
  bash -i || true
else
  tour
fi
stop_everything
echo
echo "segments left: $(ipcs -m | grep -c '^0x' || true), semaphores left: $(ipcs -s | grep -c '^0x' || true)"
