#!/usr/bin/env bash
# What can be told from the sources alone: their format, and that generated code is current.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t sources < <(git ls-files '*.cpp' '*.hpp' '*.c' '*.h' | grep -v '\.pb-c\.')
clang-format --dry-run -Werror "${sources[@]}"

generated=$(mktemp -d)
trap 'rm -rf "$generated"' EXIT
protoc-c --c_out="$generated" samba.proto audit_events.proto
for file in "$generated"/*; do
  cmp -s "$file" "$(basename "$file")" || { echo "$(basename "$file") is out of date" >&2; exit 1; }
done
echo "sources are in order"
