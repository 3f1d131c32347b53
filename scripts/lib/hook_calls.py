#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Counts the system calls of each hook: hook_calls.py TRACE [DOCUMENT]

TRACE is strace's output of bench/hook_calls. With a document, the table goes between its marks."""
import re
import sys
from collections import Counter

import marked_section

IDENTITY = {"getresuid", "getresgid", "setresuid", "setresgid", "setreuid", "setregid", "geteuid",
            "getegid", "getuid", "getgid"}
GROUPS = [("identity", IDENTITY), ("stat", {"newfstatat", "stat", "fstat"}),
          ("semaphores", {"semget", "semctl", "semop"}), ("shared memory", {"shmget", "shmat", "shmdt"}),
          ("attributes", {"setxattr", "getxattr"})]


def calls_of_hooks(path):
    name, counts = None, {}
    for line in open(path):
        mark = re.search(r'write\(-1, "(begin|end) (\w+)"', line)
        if mark:
            name = mark.group(2) if mark.group(1) == "begin" else None
            if name:
                counts[name] = Counter()
            continue
        call = re.match(r"(?:\[pid +\d+\] |\d+ +)?(\w+)\(", line)
        if name and call:
            counts[name][call.group(1)] += 1
    return counts


def table(counts):
    titles = [title for title, _ in GROUPS]
    lines = ["| hook | calls | " + " | ".join(titles) + " | other |",
             "|---|---|" + "---|" * (len(titles) + 1)]
    for name, calls in counts.items():
        cells, known = [], set()
        for _, members in GROUPS:
            cells.append(str(sum(calls[call] for call in members)))
            known |= members
        other = ", ".join(f"{call} {count}" for call, count in sorted(calls.items())
                          if call not in known)
        lines.append(f"| {name} | {sum(calls.values())} | " + " | ".join(cells) + f" | {other} |")
    return "\n".join(lines)


def main():
    text = table(calls_of_hooks(sys.argv[1]))
    print(text)
    if len(sys.argv) < 3:
        return
    marked_section.replace(sys.argv[2], "system calls", text)


if __name__ == "__main__":
    main()
