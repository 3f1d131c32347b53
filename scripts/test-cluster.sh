#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Tests of a whole cluster: three nodes with CTDB, Samba and the services in namespaces of this machine, and
# faults while clients write. Needs the release build; takes some minutes. Exit code 1: a case failed.
# usage: scripts/test-cluster.sh [CASE]...   (the cases of tests/cluster/cluster_test.py)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/packages.sh
TAVRIX_CLUSTER=$(mktemp -d)
source scripts/lib/cluster.sh
require_root
install_packages "${tavrix_samba_packages[@]}"
install_cluster_packages

trap stop_hub EXIT
start_hub
hub_do bring_up || { hub_do show_troubles >&2; exit 1; }
in_hub env TAVRIX_CLUSTER="$cluster" PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 \
  "$PWD/tests/cluster/cluster_test.py" "$@"
