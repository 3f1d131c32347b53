#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-3.0-or-later
# Builds the page in Cockpit: page/dist is the folder that the console serves. It fetches what the lock file
# names from the package registry; the default build has no part in it.
# usage: scripts/build-page.sh [--offline]   (--offline: with the modules that are there)
set -euo pipefail
cd "$(dirname "$0")/../page"
if ! command -v npm >/dev/null; then
  echo "$0: install nodejs (18 or newer) and npm" >&2
  exit 2
fi
[ "${1:-}" = --offline ] || npm ci --no-fund --no-audit
npm run --silent check
npm run --silent build
du -h --apparent-size dist/*
