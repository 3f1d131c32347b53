# The demonstration itself, run in a private world: demo_world.sh SOURCES TOOLS
set -euo pipefail
sources=$1
export PATH=$2:$PATH

title() { printf '\n\033[1m%s\033[0m\n' "$*"; }
run() {
  printf '$ %s\n' "$*"
  "$@"
}

title "1. Settings: an INI file becomes the block of shared memory that every process reads"
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
# name, uid, supplementary groups: 9001 are administrators, 9002 power users
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

title "6. Two connections: identity from the group list map, verdicts cached, changes recorded"
cat >/scratch/groups.json <<'JSON'
{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
 "users": {"anna": [9002, 9010], "ben": [9002, 9011]}}
JSON
run tavrixctl groupmap build /scratch/groups.json -o /etc/tavrix/groupmap_refresh
mkdir -p /tavrix/.conf/staging
run tavrix-sweeper --once
# The two are users of this machine here; what counts is the name that the client gave.
example-connection anna 1 Shared/Design/plan.txt 2>/dev/null
example-connection anna 1 Shared/Design/Drafts/idea.txt 2>/dev/null
example-connection ben 2 Shared/Design/plan.txt 2>/dev/null
run tavrixctl events buffer show
run tavrix-sweeper --once
echo '$ tavrixctl events decode /tavrix/.conf/staging/pending_*'
tavrixctl events decode /tavrix/.conf/staging/pending_*

title "7. A new map takes the place of the old one while servers go on asking"
tavrix-sample-tree --folders 100000 /scratch/size.json /scratch/data.json
run tavrixctl map import /scratch/size.json /scratch/data.json
run tavrixctl map info
run cat /var/log/tavrix_perms.log

title "8. Nothing stays behind"
run tavrixctl map remove
run tavrixctl events buffer remove
run tavrixctl config remove
echo "segments left: $(ipcs -m | grep -c '^0x' || true), semaphores left: $(ipcs -s | grep -c '^0x' || true)"
