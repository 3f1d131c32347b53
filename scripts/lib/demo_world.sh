# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs the demonstration inside a private world: demo_world.sh SOURCES TOOLS
set -euo pipefail
sources=$1
export PATH=$2:$PATH

title() { printf '\n\033[1m%s\033[0m\n' "$*"; }
run() {
  printf '$ %s\n' "$*"
  "$@"
}

title "1. Settings: an INI file becomes the block of shared memory that every process reads"
cp "$sources/packaging/exception_patterns" /etc/tavrix/
run tavrixctl config load "$sources/packaging/tavrix.conf"
run tavrixctl config set "VFS:debug level" -1
tavrixctl config show | grep -E 'level|staging'

title "2. The permission map: two JSON files of the synchronisation agent become an image"
cp "$sources"/examples/team/*.json /scratch/
run tavrixctl map lint /scratch/size.json /scratch/data.json
run tavrixctl map import /scratch/size.json /scratch/data.json
run tavrixctl map tree --depth 3
run tavrixctl map acl Shared/Design/Drafts

title "3. The folders of the share"
mkdir -p /tavrix/Shared/Design/{Drafts,Board,Gallery} /tavrix/Shared/Finance /tavrix/Private/{pat,anna}
touch /tavrix/Shared/Design/plan.txt /tavrix/Shared/Design/Gallery/photo.jpg /tavrix/Private/pat/diary.txt
chown -R 1003 /tavrix/Private/pat
chown -R 1005 /tavrix/Private/anna
(cd /tavrix && find . -mindepth 1 | sort | sed 's/^/  /')

title "4. Verdicts"
echo "   yes: granted   see: may see it, not open it   -: refused"
# Each row is a name, a uid and supplementary groups; 9001 are administrators, 9002 power users.
callers=(
  "admin:1001:9001" "power:1003:9002" "standard:1002:9010" "anna:1005:9002,9010" "ben:1006:9002,9011"
)
questions=(
  "stat Shared" "mkdir Shared/NewTeam" "create Shared/file.txt" "opendir Shared/Design"
  "open-read Shared/Design/plan.txt" "open-write Shared/Design/plan.txt"
  "unlink Shared/Design/plan.txt" "create Shared/Design/Drafts/idea.txt" "opendir Shared/Design/Board"
  "opendir Shared/Design/Gallery" "open-read Shared/Design/Gallery/photo.jpg"
  "opendir Shared/Finance" "opendir Private" "opendir Private/pat" "open-read Private/pat/diary.txt"
  "create .DS_Store" "stat Elsewhere"
)
printf '   %-46s' ""
for caller in "${callers[@]}"; do printf '%-10s' "${caller%%:*}"; done
echo
for question in "${questions[@]}"; do
  printf '   %-46s' "$question"
  for caller in "${callers[@]}"; do
    IFS=: read -r _ uid groups <<<"$caller"
    # shellcheck disable=SC2086
    answer=$(tavrixctl check --uid "$uid" --gid 9003 --groups "$groups" --admins-gid 9001 \
      --powerusers-gid 9002 $question) || true
    case $answer in
      granted) printf '%-10s' yes ;;
      "granted (to see"*) printf '%-10s' see ;;
      refused*) printf '%-10s' - ;;
      *) printf '%-10s' "?" ;;
    esac
  done
  echo
done

title "5. How one of them is reached"
echo '$ tavrixctl check --trace --uid 1006 ... open-write Shared/Design/plan.txt'
tavrixctl check --trace --uid 1006 --gid 9003 --groups 9002,9011 --admins-gid 9001 \
  --powerusers-gid 9002 open-write Shared/Design/plan.txt 2>&1 |
  grep -E 'perm mask|DENIED|Deny|refused' || true

title "6. One client's session, played for five kinds of caller through the hooks"
# The callers are accounts of this world alone; their rights come from the group list map.
cp --remove-destination "$(readlink -f /etc/passwd)" /etc/passwd
accounts=("admin:1001" "anna:1005" "standard:1002" "pc7\$:1007" "syncagent:1008")
for account in "${accounts[@]}"; do
  echo "${account%%:*}:x:${account##*:}:9003::/:/bin/false" >>/etc/passwd
done
cat >/scratch/groups.json <<'JSON'
{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
 "users": {"admin": [9001], "anna": [9002, 9010], "standard": [9010], "pc7$": [9002, 9010]}}
JSON
run tavrixctl groupmap build /scratch/groups.json -o /etc/tavrix/groupmap_refresh
touch /etc/tavrix/permission_refresh
mkdir -p /tavrix/.conf/{staging,auditing}
run tavrix-sweeper --once
for account in "${accounts[@]}"; do
  name=${account%%:*}
  reserved=()
  [ "$name" != syncagent ] || reserved=(--reserved)
  example-walkthrough "${reserved[@]}" "$name" Shared/Design >"/scratch/session.$name" 2>/dev/null
  rm -rf /tavrix/Shared/Design/Minutes  # a refused session leaves it behind
done
echo "   the reserved user is granted everything and recorded nowhere; a computer is shown nothing"
printf '   %-26s' ""
for account in "${accounts[@]}"; do printf '%-27s' "${account%%:*}"; done
echo
for step in {1..11}; do
  printf '   %-26s' "$(sed -n "${step}s/  .*//p" /scratch/session.admin)"
  for account in "${accounts[@]}"; do
    printf '%-27s' "$(sed -n "${step}p" "/scratch/session.${account%%:*}" | cut -c28-)"
  done
  echo
done
echo
echo "   each connection flushed its records at its end: the events for the agent, and who read what"
names=("${accounts[@]/:/=}")
tavrixctl events decode /tavrix/.conf/staging/pending_* |
  "$sources/scripts/lib/brief.py" "${names[@]}" >/scratch/events
tavrixctl audit decode /tavrix/.conf/auditing/pending_* |
  "$sources/scripts/lib/brief.py" "${names[@]}" >/scratch/audits
pr -m -t -w 170 /scratch/events /scratch/audits | expand | sed 's/^/   /; s/ *$//'
echo '$ tavrixctl events decode /tavrix/.conf/staging/pending_* | head -n 2'
tavrixctl events decode /tavrix/.conf/staging/pending_* 2>/dev/null | head -n 2 || true

title "7. A new map takes the place of the old one while servers go on asking"
tavrix-sample-tree --folders 100000 /scratch/size.json /scratch/data.json
run tavrixctl map import /scratch/size.json /scratch/data.json
run tavrixctl map info
run cat /var/log/tavrix_perms.log

title "8. Nothing stays behind"
run tavrixctl map remove --yes
run tavrixctl events buffer remove --yes
run tavrixctl config remove --yes
echo "segments left: $(ipcs -m | grep -c '^0x' || true), semaphores left: $(ipcs -s | grep -c '^0x' || true)"
