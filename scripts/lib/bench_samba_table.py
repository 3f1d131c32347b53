#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Compares the least of several runs, with the module and without: bench_samba_table.py RESULTS [DOCUMENT]"""
import sys
from collections import defaultdict

import marked_section

NAMES = {"list": "ls of 10,000 entries", "list-again": "the same, twice", "put": "2,000 puts",
         "get": "2,000 gets", "rename": "2,000 renames", "delete": "2,000 deletes"}


def table(path):
    runs = defaultdict(list)
    for line in open(path):
        folders, operation, variant, nanoseconds = line.split()
        runs[folders, operation, variant].append(int(nanoseconds))
    lines = ["| map | operation | without | with | ratio |", "|---|---|---|---|---|"]
    for folders, operation, variant in runs:
        if variant != "with":
            continue
        best = {kind: min(runs[folders, operation, kind]) for kind in ("without", "with")}
        size = "small" if folders == "0" else f"{int(folders):,} folders"
        lines.append(f"| {size} | {NAMES[operation]} | {best['without'] / 1e6:.0f} ms | "
                     f"{best['with'] / 1e6:.0f} ms | {best['with'] / best['without']:.2f} |")
    return "\n".join(lines)


def main():
    text = table(sys.argv[1])
    print(text)
    if len(sys.argv) < 3:
        return
    marked_section.replace(sys.argv[2], "samba results", text)


if __name__ == "__main__":
    main()
