#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Prints a settings file with other values: cluster_settings.py FILE SECTION:KEY=VALUE..."""

import re
import sys


def main():
    wanted = dict(each.split("=", 1) for each in sys.argv[2:])
    section = ""
    for line in open(sys.argv[1], encoding="utf-8"):
        if head := re.match(r"\[(.*)\]", line):
            section = head[1]
        entry = re.match(r"([^#;=\[]+?)\s*=", line)
        name = f"{section}:{entry[1]}" if entry else ""
        print(f"{entry[1]} = {wanted.pop(name)}" if name in wanted else line.rstrip("\n"))
    if wanted:
        sys.exit(f"{sys.argv[1]} has no {', '.join(wanted)}")


main()
