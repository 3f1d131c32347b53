#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Checks the sources without building them: their format, their licences, that no test is skipped,
# that generated files are current, and that clang-tidy finds nothing in the files that differ from
# the main branch.
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
done < <(git ls-files '*.cpp' '*.hpp' '*.c' '*.h' '*.proto' '*.sh' '*.py' '*.cmake' '*CMakeLists.txt' \
  '*.ts' '*.tsx' '*.mjs' |
  grep -v '\.pb-c\.')
[ $wrong = 0 ] || exit 1

if git grep -n "GTEST_SKIP\|DISABLED_" -- tests; then
  echo "a test that is skipped tells nothing" >&2
  exit 1
fi

generated=$(mktemp -d)
trap 'rm -rf "$generated"' EXIT
scripts/generate.sh "$generated"
while IFS= read -r name; do
  cmp -s "$generated/$name" "$name" || { echo "$name is not what scripts/generate.sh makes of its source" >&2; exit 1; }
done < <(cd "$generated" && find . -type f -printf '%P\n')

# Without a branch of that name the changes since the last commit remain.
base=$(git merge-base HEAD origin/main 2>/dev/null || git merge-base HEAD main 2>/dev/null || echo HEAD)
mapfile -t changed < <(git diff --name-only --diff-filter=d "$base" -- '*.cpp' '*.c'
  git ls-files --others --exclude-standard -- '*.cpp' '*.c')
if [ ${#changed[@]} -gt 0 ]; then
  if scripts/tidy.sh --ready; then
    scripts/tidy.sh "${changed[@]}"
  else
    echo "clang-tidy is left out: it needs the commands of the release build"
  fi
fi
echo "sources are in order"
