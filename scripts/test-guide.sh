#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs every command of docs/appliance.md, in its order, on empty machines with systemd, and compares what they print
# with what the page shows. It prints a line for each command, and the time from the empty machine to the first
# listing by a client.
# usage: scripts/test-guide.sh [--without-source] [--keep] [FOLDER]
#   FOLDER            the packages to install; without it, scripts/make-packages.sh makes them
#   --without-source  leave out the machine on which everything is built from source, which takes minutes
#   --keep            leave the machines as they are at the end, or at the failure
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
source scripts/lib/machine.sh
require_root

guide=docs/appliance.md
with_source=yes
keep=
packages=
for argument in "$@"; do
  case $argument in
    --without-source) with_source= ;;
    --keep) keep=yes ;;
    -*) echo "usage: $0 [--without-source] [--keep] [FOLDER]" >&2; exit 2 ;;
    *) packages=$(realpath "$argument") ;;
  esac
done

run=$(mktemp -d)
started=()
finish() {
  local name
  for name in "${started[@]}"; do
    if [ -n "$keep" ]; then
      echo "machine $name stays; its first process is $(machine_leader "$name" || echo gone)"
    else
      machine_remove "$name"
    fi
  done
  rm -rf "$run"
}
trap finish EXIT

# --- packages ---

make_packages() {
  [ -n "$packages" ] || { scripts/make-packages.sh >"$run/packages.log" || { cat "$run/packages.log"; exit 1; }; }
  packages=${packages:-$PWD/build/packages/packages}
  mkdir "$run/tavrix" "$run/newer"
  local name
  for name in libtavrix1 tavrix-tools samba-vfs-tavrix; do
    cp "$packages/${name}_"*.deb "$run/tavrix/"
    make_newer "$run/tavrix/${name}_"*.deb
  done
}

# The same package with a higher version.
make_newer() {  # FILE
  local version
  version=$(dpkg-deb --field "$1" Version)
  dpkg-deb --raw-extract "$1" "$run/unpacked"
  sed -i "s/${version//./\\.}/$version+newer/g" "$run/unpacked/DEBIAN/control"
  dpkg-deb --build "$run/unpacked" "$run/newer" >/dev/null
  rm -rf "$run/unpacked"
}

# --- machines ---

# The roles of machines by their names in the guide. A machine has the number of this process behind its role, so
# that two runs do not meet.
declare -A role_of=(["the first one"]=first ["the new one"]=new ["one with the sources"]=sources)

# Starts the machine when the guide first comes to it, with what the guide says is there.
use_machine() {  # NAME IN THE GUIDE
  local previous=${machine:-}
  role=${role_of[$1]:-}
  [ -n "$role" ] || { echo "no machine is \"$1\"" >&2; exit 1; }
  machine=$role-$$
  printf '\nmachine %s: %s\n' "$machine" "$1"
  [[ " ${started[*]} " != *" $machine "* ]] || return 0
  ! is_left_out || return 0
  machine_create "$machine"
  begin=$(date +%s)
  started+=("$machine")
  machine_start "$machine"
  case $role in
    sources) copy_sources ;;
    *) machine_copy "$machine" "$run/tavrix" "$run/newer" /root ;;
  esac
  if [ "$role" = new ]; then
    machine_run "$previous" tar -C /root -cf - backup | machine_run "$machine" tar -C /root -xf -
  fi
}

is_left_out() { [ "$role" = sources ] && [ -z "$with_source" ]; }

copy_sources() {
  git ls-files -z --cached --others --exclude-standard |
    tar -c --null --files-from=- --ignore-failed-read --transform 's|^|libtavrix/|' 2>/dev/null |
    machine_run "$machine" tar -C /root -xf -
}

# --- steps ---

run_command() {  # LINE COMMAND
  local status=0 before
  before=$(date +%s.%N)
  if [ "$2" = "systemctl reboot" ]; then
    machine_reboot "$machine" >"$run/said" 2>&1 || status=$?
  else
    machine_run "$machine" env DEBIAN_FRONTEND=noninteractive bash -c "$2" >"$run/said" 2>&1 </dev/null || status=$?
  fi
  cat "$run/said" >>"$run/block"
  printf '%7.1f s  line %-4s %s\n' "$(echo "$(date +%s.%N) - $before" | bc)" "$1" "$(head -n 1 <<<"$2" | cut -c1-110)"
  if [ "$status" != 0 ]; then
    echo "$guide:$1: exit status $status of: $2" >&2
    tail -n 40 "$run/said" >&2
    exit 1
  fi
  if [ -z "${listed:-}" ] && [[ $2 == *smbclient*ls* ]]; then
    listed=$(($(date +%s) - begin))
  fi
}

check_output() {  # LINE SHOWN
  printf '%s\n' "$2" >"$run/shown"
  if ! python3 scripts/lib/guide_steps.py compare "$run/shown" "$run/block" >"$run/difference"; then
    echo "$guide:$1: $(cat "$run/difference")" >&2
    sed 's/^/  | /' "$run/block" | tail -n 40 >&2
    exit 1
  fi
}

make_packages
mapfile -t names < <(python3 scripts/lib/guide_steps.py packages "$guide")
install_packages bc
prepare_machines "${names[@]}" src:samba "$run"/tavrix/*.deb
use_machine "the first one"
python3 scripts/lib/guide_steps.py steps "$guide" >"$run/steps"
while IFS= read -r -d '' kind && IFS= read -r -d '' line && IFS= read -r -d '' text; do
  case $kind in
    section) printf '\n%s\n' "$text" ;;
    machine) use_machine "$text" ;;
    block) : >"$run/block" ;;
    *)
      ! is_left_out || continue
      if [ "$kind" = command ]; then run_command "$line" "$text"; else check_output "$line" "$text"; fi
      ;;
  esac
done <"$run/steps"
printf '\nfrom the empty machine to the first listing by a client: %d seconds\n' "${listed:?no client listed anything}"
