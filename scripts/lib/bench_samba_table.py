#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Compares the server with and without the module: bench_samba_table.py PART RESULTS [--by-call] [DOCUMENT]

PART says which results these are: costs or counts. With a document, the table goes between its marks."""
import math
import os
import sys
from collections import defaultdict

import marked_section

MAPS = {"small": "small", "large": "1,000,000 folders"}
OTHERS = {"messages": "with messages", "hide": "hide unreadable", "audit": "full_audit", "both": "both"}


def names_of_costs():
    entries, files = (int(os.environ[name]) for name in ("bench_entries", "bench_files"))
    return {"list": f"ls of {entries:,} entries", "list-again": "the same, twice", "put": f"{files:,} puts",
            "get": f"{files:,} gets", "rename": f"{files:,} renames", "delete": f"{files:,} deletes"}


NAMES_OF_COUNTS = {"list": "entry of a listing", "list-again": "entry listed again", "put": "put of a new file",
                   "get": "get", "rename": "rename", "delete": "delete"}


def rows_of(path):
    with open(path) as file:
        return [line.split() for line in file]


def table_of(titles, rows):
    lines = [titles, ["---"] * len(titles), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines).replace("| --- ", "|---").replace("--- |", "---|")


def costs(rows):
    """The least of the rounds, and its share of the bare server's."""
    best = defaultdict(dict)
    for folders, variant, operation, nanoseconds in rows:
        before = best[folders, operation].get(variant, math.inf)
        best[folders, operation][variant] = min(before, int(nanoseconds))
    others = [name for name in OTHERS if any(name in each for each in best.values())]
    names, lines = names_of_costs(), []
    for (folders, operation), each in best.items():
        share = {variant: f"{cost / each['bare']:.2f}" for variant, cost in each.items()}
        lines.append([MAPS[folders], names[operation], f"{each['bare'] / 1e6:.0f} ms", f"{each['tavrix'] / 1e6:.0f} ms",
                      share["tavrix"], *(share.get(name, "") for name in others)])
    return table_of(["map", "operation", "bare", "tavrix", "share", *(OTHERS[name] for name in others)], lines)


def calls_of(rows):
    """By operation and kind of server: the calls of each name."""
    calls = defaultdict(lambda: defaultdict(dict))
    first_map = rows[0][0]
    for folders, variant, operation, call, count in rows:
        if variant == "bare" and folders != first_map:
            continue  # the map does not matter to it
        kind = {"tavrix": f"tavrix, {MAPS[folders]}"}.get(variant, variant)
        calls[operation][OTHERS.get(kind, kind)][call] = float(count)
    return calls


def counts(rows):
    calls = calls_of(rows)
    kinds = list(dict.fromkeys(kind for each in calls.values() for kind in each))
    return table_of(["operation", *kinds],
                    [[NAMES_OF_COUNTS[operation], *(f"{sum(each[kind].values()):.1f}" for kind in kinds)]
                     for operation, each in calls.items()])


def by_call(rows):
    """Every call's count, those that differ most from the bare server first."""
    lines = []
    for operation, each in calls_of(rows).items():
        bare = each.pop("bare")
        for kind, calls in each.items():
            lines += ["", f"{NAMES_OF_COUNTS[operation]}", f"  {'':20}      bare  {kind}"]
            more = {call: calls.get(call, 0) - bare.get(call, 0) for call in {*calls, *bare}}
            for call in sorted(more, key=lambda name: (-abs(round(more[name], 1)), name)):
                if max(bare.get(call, 0), calls.get(call, 0)) >= 0.05:
                    lines.append(f"  {call:20} {bare.get(call, 0):9.1f} {calls.get(call, 0):9.1f} {more[call]:+9.1f}")
    return "\n".join(lines)


def crowds(rows):
    """Of the rounds, each server's least CPU time and least elapsed time, and the most memory."""
    runs = defaultdict(list)
    for folders, variant, *pairs in rows:
        numbers = {name: int(number) for name, number in (pair.split("=") for pair in pairs)}
        runs[numbers["connections"], folders, variant].append(numbers)
    lines = []
    for connections, folders, variant in sorted(runs, key=lambda key: (key[0], key[1] != "small", key[2])):
        ours, bare = runs[connections, folders, variant], runs[connections, folders, "bare"]
        least = {name: min(run[name] for run in ours) for name in ("cpu", "elapsed")}
        share = {name: least[name] / min(run[name] for run in bare) for name in least}
        memory = [f"{max(run[name] for run in ours) / 2**20:.0f} MiB" for name in ("before", "most", "left")]
        swaps = min(run["swaps"] for run in ours)
        lines.append([str(connections), MAPS[folders], variant, f"{least['cpu'] / 1e9:.1f} s", f"{share['cpu']:.2f}",
                      f"{least['elapsed'] / 1e9:.1f} s", f"{share['elapsed']:.2f}", str(swaps),
                      *memory])
    return table_of(["clients", "map", "server", "CPU", "share", "elapsed", "share", "swaps", "memory before", "most",
                     "left"], lines)


PARTS = {"costs": (costs, "samba results"), "counts": (counts, "samba counts"),
         "crowds": (crowds, "samba crowds")}


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
