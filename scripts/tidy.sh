#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs clang-tidy with the checks of .clang-tidy; any finding is a failure. It takes the compile commands
# from the release build, which must be configured.
# usage: scripts/tidy.sh [FILE]...   (default: the sources of the library; files that the release build
#                                     does not compile, and generated ones, are left out)
#        scripts/tidy.sh --ready     (only tells whether there are compile commands of this tree)
set -euo pipefail
cd "$(dirname "$0")/.."

commands=build/release/compile_commands.json
is_ready() { grep -qs "\"directory\": \"$PWD/" $commands; }
if [ "${1:-}" = --ready ]; then is_ready && exit 0 || exit 1; fi
is_ready || { echo "there are no compile commands of this tree: cmake --preset release" >&2; exit 2; }

compiled() {  # the files of the release build, or those of one target of it
  sed -nE "s|.* -o [^ ]*${1:-}\.dir/.* -c $PWD/([^ ]*)\",?$|\1|p" $commands |
    grep -v '\.pb-c\.c$' | sort -u
}
if [ $# -gt 0 ]; then
  mapfile -t files < <(compiled | grep -Fx -f <(printf '%s\n' "$@"))
else
  mapfile -t files < <(compiled tavrix_objects)
fi
[ ${#files[@]} -gt 0 ] || exit 0

run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT
# The tests' commands are the compiler's and name a warning that clang does not have.
if ! printf '%s\0' "${files[@]}" |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/release --quiet --extra-arg=-Wno-unknown-warning-option \
    >"$run/found" 2>"$run/errors"; then
  cat "$run/found" >&2
  # It counts the warnings in headers of the system there, too.
  grep -vE '^[0-9]+ warnings? (generated|treated)|^Suppressed ' "$run/errors" >&2 || true
  exit 1
fi
