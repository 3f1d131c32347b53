#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Shortens decoded records to a line each: brief.py NAME=UID... <records

Reads the output of `tavrixctl events decode` and `tavrixctl audit decode`."""
import json
import sys


def brief(record, names):
    who = names.get(record["uid"], str(record["uid"]))
    path = record["path"].removeprefix("/tavrix/")
    if "type" not in record:
        return f"{who:9} read {path}, {record['size']} bytes, from {record.get('ip_address', '?')}"
    target = record.get("rename_path", "").removeprefix("/tavrix/")
    arrow = f" -> {target}" if target else ""
    return f"{who:9} {record['type']:7} {path}{arrow}"


def main():
    names = {int(uid): name for name, uid in (word.split("=") for word in sys.argv[1:])}
    for line in sys.stdin:
        print(brief(json.loads(line), names))


if __name__ == "__main__":
    main()
