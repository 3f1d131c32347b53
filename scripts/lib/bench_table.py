#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Pairs benchmarks with their floors: bench_table.py RESULTS [DOCUMENT PLOT_FOLDER]

Prints the table of ratios. With a document, also puts the table between the document's two marks and
writes the numbers of the growth plot."""
import json
import sys
from pathlib import Path

import marked_section

def medians(path):
    results = {}
    for entry in json.load(open(path))["benchmarks"]:
        if entry.get("aggregate_name") == "median":
            results[entry["run_name"]] = entry
    return results


def in_unit(entry):
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]]
    time = entry["real_time"] * scale
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if time >= size:
            return f"{time / size:.1f} {unit}", time
    return f"{time:.1f} ns", time


def pairs(results):
    for name, entry in results.items():
        base, _, rest = name.partition("/")
        floor = results.get(f"{base}_floor" + ("/" + rest if rest else ""))
        if base.endswith("_floor") or floor is None:
            continue
        yield name, entry, floor


def table(results):
    lines = ["| benchmark | time | floor | ratio | counts |", "|---|---|---|---|---|"]
    for name, entry, floor in pairs(results):
        text, time = in_unit(entry)
        floor_text, floor_time = in_unit(floor)
        counts = []
        if "faults" in entry:
            counts.append(f"{entry['faults']:.1f} page faults (floor {floor['faults']:.1f})")
        if "extra_MiB" in entry:
            counts.append(f"{entry['extra_MiB']:.1f} MiB beside the image")
        lines.append(f"| {name.split('/iterations')[0]} | {text} | {floor_text} | "
                     f"{time / floor_time:.2f} | {', '.join(counts)} |")
    return "\n".join(lines)


def write_growth(results, folder):
    by_size, by_width = [], []
    for name, entry, _ in pairs(results):
        parts = name.split("/")
        if parts[0] != "decision":
            continue
        point = (int(parts[1]), int(parts[2]), in_unit(entry)[1] / 1000)
        if point[1] == 16:
            by_size.append((point[0], point[2]))
        if point[0] == 100000:
            by_width.append((point[1], point[2]))
    for file, points in (("size.dat", by_size), ("width.dat", by_width)):
        text = "".join(f"{x} {y}\n" for x, y in sorted(points))
        (Path(folder) / file).write_text(text)


def main():
    results = medians(sys.argv[1])
    text = table(results)
    print(text)
    if len(sys.argv) < 4:
        return
    marked_section.replace(sys.argv[2], "results", text)
    write_growth(results, sys.argv[3])


if __name__ == "__main__":
    main()
