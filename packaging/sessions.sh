#!/bin/sh
# SPDX-License-Identifier: LGPL-3.0-or-later
# Prints a line for each session of a client that has libtavrix mapped: PID, program, account.
# usage: sessions [--old]   (--old: only those whose library was replaced since)
set -e

pattern='/libtavrix\.so\.[^ ]*\( (deleted)\)\{0,1\}$'
[ "$1" != --old ] || pattern='/libtavrix\.so\.[^ ]* (deleted)$'

clients=$(timeout 5 smbstatus -p 2>/dev/null || true)

account_of() {  # PID: the client's account, or the user that the process works as
  client=$(echo "$clients" | awk -v pid="$1" '$1 == pid { print $2 }')
  echo "${client:-$(stat -c %U "/proc/$1" 2>/dev/null || true)}"
}

for process in /proc/[0-9]*; do
  grep -qs "$pattern" "$process/maps" || continue
  case $(readlink "$process/exe" || true) in */tavrix*) continue ;; esac  # a service or a tool
  pid=${process#/proc/}
  echo "  PID $pid ($(cat "$process/comm" 2>/dev/null || true)), $(account_of "$pid")"
done
