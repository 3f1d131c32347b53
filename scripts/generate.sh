#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Writes the files that are made from one description: the C code of the two kinds of record from
# their .proto files, and from utils/settings_table.hpp the shipped settings file and the lists
# of settings in the manual pages.
# usage: scripts/generate.sh [FOLDER]      (default: the tree)
set -euo pipefail
cd "$(dirname "$0")/.."
tree=$PWD
folder=$(realpath "${1:-.}")
mkdir -p "$folder"/{events/generated,packaging,docs/man}

(cd events && protoc-c --c_out="$folder/events/generated" samba.proto audit_events.proto)

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
"${CXX:-c++}" -std=c++20 -I include -I . tools/settings/{main,texts}.cpp -o "$scratch/settings-text"
"$scratch/settings-text" file >"$scratch/tavrix.conf"
cat "$scratch/tavrix.conf" >"$folder/packaging/tavrix.conf"
[[ $folder == "$tree" ]] || cp docs/man/tavrixctl.1 docs/man/tavrix.conf.5 "$folder/docs/man/"
"$scratch/settings-text" manual |
  python3 scripts/lib/marked_section.py "$folder/docs/man/tavrixctl.1" "the list of settings"
"$scratch/settings-text" page |
  python3 scripts/lib/marked_section.py "$folder/docs/man/tavrix.conf.5" "the list of settings"
