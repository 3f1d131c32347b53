#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Compares the server with and without the module: bench_samba_table.py PART RESULTS [--by-call] [DOCUMENT]

PART says which results these are: costs or counts. With a document, the table goes between its marks."""
import sys
from collections import defaultdict

import marked_section

MAPS = {"small": "small", "large": "1,000,000 folders"}
COSTS = {"list": "ls of 10,000 entries", "list-again": "the same, twice", "put": "2,000 puts",
         "get": "2,000 gets", "rename": "2,000 renames", "delete": "2,000 deletes"}
COUNTS = {"list": "entry of a listing", "list-again": "entry listed again", "put": "put of a new file", "get": "get", "rename": "rename",
          "delete": "delete"}


def rows_of(path):
    with open(path) as file:
        return [line.split() for line in file]


def costs(rows):
    runs = defaultdict(list)
    for folders, variant, operation, nanoseconds in rows:
        runs[folders, operation, variant].append(int(nanoseconds))
    lines = ["| map | operation | without | with | ratio |", "|---|---|---|---|---|"]
    for folders, operation, variant in runs:
        if variant != "tavrix":
            continue
        bare, ours = (min(runs[folders, operation, kind]) for kind in ("bare", "tavrix"))
        lines.append(f"| {MAPS[folders]} | {COSTS[operation]} | {bare / 1e6:.0f} ms | "
                     f"{ours / 1e6:.0f} ms | {ours / bare:.2f} |")
    return "\n".join(lines)


def calls_of(rows):
    """By operation and kind of server: the calls of each name."""
    calls = defaultdict(lambda: defaultdict(dict))
    for folders, variant, operation, call, count in rows:
        kind = "bare" if variant == "bare" else MAPS[folders]
        calls[operation][kind][call] = float(count)
    return calls


def counts(rows):
    calls = calls_of(rows)
    kinds = ["bare", *(name for name in MAPS.values() if any(name in each for each in calls.values()))]
    lines = ["| operation | " + " | ".join(kinds) + " |", "|---|" + "---|" * len(kinds)]
    for operation, each in calls.items():
        cells = (f"{sum(each[kind].values()):.1f}" for kind in kinds)
        lines.append(f"| {COUNTS[operation]} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def by_call(rows):
    """Every call's count, those that differ most from the bare server first."""
    lines = []
    for operation, each in calls_of(rows).items():
        bare = each.pop("bare")
        for kind, calls in each.items():
            lines.append(f"\n{COUNTS[operation]}, {kind}:     bare      ours    more")
            more = {call: calls.get(call, 0) - bare.get(call, 0) for call in {*calls, *bare}}
            for call in sorted(more, key=lambda name: (-abs(more[name]), name)):
                lines.append(f"  {call:20} {bare.get(call, 0):9.1f} {calls.get(call, 0):9.1f} {more[call]:+7.1f}")
    return "\n".join(lines)


PARTS = {"costs": (costs, "samba results"), "counts": (counts, "samba counts")}


def main():
    part, path, *options = sys.argv[1:]
    make, section = PARTS[part]
    rows = rows_of(path)
    text = make(rows)
    print(text)
    if part == "counts" and "--by-call" in options:
        print(by_call(rows))
    for document in options:
        if document != "--by-call":
            marked_section.replace(document, section, text)


if __name__ == "__main__":
    main()
