# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs suites inside a private world: torture_world.sh SOURCES BUILD RESULTS FILTER
# Writes smbtorture's output to RESULTS/plain.SUITE and RESULTS/module.SUITE.
set -euo pipefail
sources=$1
build=$2
results=$3
filter=$4
export PATH=$build/tools:$PATH
source "$sources/scripts/lib/samba_world.sh"

# These suites need features that no share here has, measure for minutes, or never end.
left_out='bench|scan|hold-|smb2.durable-v2-delay|replay|multichannel|charset|smb2.credits.*delay|fdpass'
seconds=${TORTURE_SECONDS:-60}  # for one suite

prepare_samba_world "$build/samba/tavrix.so"
load_settings '{"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002}, "users": {"admin": [9001], "other": [9001]}}'
tavrixctl config set "VFS:default user" 0
tavrixctl config set "VFS:default group" 0
mkdir -p /tavrix/Shared/Design /scratch/plain
chmod 0777 /scratch/plain
chmod 0755 /scratch /tavrix /tavrix/Shared
cp "$sources"/examples/team/*.json /scratch/
tavrixctl map import /scratch/size.json /scratch/data.json >/dev/null
setsid tavrix-sweeper --foreground 2>/dev/null &
sweeper=$!
trap 'stop_smbd; kill "$sweeper"' EXIT

write_smb_conf tavrix 'tavrix:allow smb1 = yes'
sed -i 's|path = /tavrix|path = /tavrix/Shared/Design|; s|smb ports = 445|smb ports = 445\n  server min protocol = NT1\n  client min protocol = NT1|' \
  $samba_folder/smb.conf
cat >>$samba_folder/smb.conf <<'CONF'

[plain]
  path = /scratch/plain
  read only = no
  case sensitive = yes
  aio read size = 0
  aio write size = 0
CONF
add_samba_user admin 1001 9003
add_samba_user other 1002 9003
start_smbd

clean() { find "$1" -mindepth 1 -delete 2>/dev/null || true; }

run_suite() {  # VARIANT SHARE SUITE
  timeout -k 2 $seconds smbtorture -s $samba_folder/smb.conf "//127.0.0.1/$2" -Uadmin%admin \
    --option=torture:share2="$2" --fullname "$3" >"$results/$1.$3" 2>&1 </dev/null || true
}

smbtorture --list-suites 2>/dev/null | grep -E "$filter" | grep -vE "$left_out" >/scratch/suites
while read -r suite; do
  clean /scratch/plain
  clean /tavrix/Shared/Design
  # The two run at the same time: each has a folder of its own.
  run_suite plain plain "$suite" &
  with_plain=$!
  run_suite module tavrix "$suite"
  wait "$with_plain"
done </scratch/suites
cp $samba_folder/log/smbd.log "$results/smbd.log"
