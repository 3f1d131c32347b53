#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Makes the C code of the two kinds of record from their .proto files.
# usage: scripts/generate.sh [FOLDER]      (events/generated unless told)
set -euo pipefail
folder=$(realpath "${1:-$(dirname "$0")/../events/generated}")
cd "$(dirname "$0")/../events"
protoc-c --c_out="$folder" samba.proto audit_events.proto
