#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Checks the sources without building them: their format, their licences, and that generated code is
# as new as its .proto files.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t sources < <(git ls-files '*.cpp' '*.hpp' '*.c' '*.h' | grep -v '\.pb-c\.')
clang-format --dry-run -Werror "${sources[@]}"

# The first line of a source, or the second behind an interpreter's, names its licence. The module is
# under Samba's, with the file that its tests build into it.
wrong=0
while read -r file; do
  case $file in
    samba/* | tests/samba/*.c) licence=GPL-3.0-or-later ;;
    *) licence=LGPL-3.0-or-later ;;
  esac
  head -n 2 "$file" | grep -qE "^(//|#) SPDX-License-Identifier: $licence\$" && continue
  echo "$file does not begin with SPDX-License-Identifier: $licence" >&2
  wrong=1
done < <(git ls-files '*.cpp' '*.hpp' '*.c' '*.h' '*.proto' '*.sh' '*.py' '*.cmake' '*CMakeLists.txt' |
  grep -v '\.pb-c\.')
[ $wrong = 0 ] || exit 1

generated=$(mktemp -d)
trap 'rm -rf "$generated"' EXIT
scripts/generate.sh "$generated"
for file in "$generated"/*; do
  name=events/generated/$(basename "$file")
  cmp -s "$file" "$name" || { echo "$name is older than its .proto file: scripts/generate.sh" >&2; exit 1; }
done
echo "sources are in order"
