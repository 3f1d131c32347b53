#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs Samba's own suites against a plain share and against the same folder behind the module, and
# compares: what passes there must pass here, but for samba/torture-differences.txt.
# usage: scripts/lib/torture.sh BUILD FILTER   (of suites, a grep -E pattern; the module is built)
set -euo pipefail
sources=$(realpath "$(dirname "$0")/../..")
source "$sources/scripts/lib/world.sh"

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
in_private_network_world "$sources/scripts/lib/torture_world.sh" "$sources" "$1" "$results" "$2"
"$sources/scripts/lib/torture_table.py" "$results" "$sources/samba/torture-differences.txt"
