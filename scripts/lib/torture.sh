#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs Samba's own suites against a plain share and against a share behind the module. A test that passes
# on the first must pass on the second, except for those in samba/torture-differences.txt.
# usage: scripts/lib/torture.sh BUILD FILTER   (a grep -E pattern of suites; the module is built already)
set -euo pipefail
sources=$(realpath "$(dirname "$0")/../..")
source "$sources/scripts/lib/world.sh"

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
in_private_network_world "$sources/scripts/lib/torture_world.sh" "$sources" "$1" "$results" "$2"
"$sources/scripts/lib/torture_table.py" "$results" "$sources/samba/torture-differences.txt"
