#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# What can be told from the sources alone: their format, and that generated code is current.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t sources < <(git ls-files '*.cpp' '*.hpp' '*.c' '*.h' | grep -v '\.pb-c\.')
clang-format --dry-run -Werror "${sources[@]}"

generated=$(mktemp -d)
trap 'rm -rf "$generated"' EXIT
scripts/generate.sh "$generated"
for file in "$generated"/*; do
  name=events/generated/$(basename "$file")
  cmp -s "$file" "$name" || { echo "$name is older than its .proto file: scripts/generate.sh" >&2; exit 1; }
done
echo "sources are in order"
