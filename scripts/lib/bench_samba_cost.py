#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Measures the CPU time of the process that serves one client: bench_samba_cost.py USER TEAM ENTRIES FILES

TEAM is the folder of the tree that has the folders to work in. Prints lines "operation nanoseconds"."""
import sys

import bench_samba_work as work
from smb_session import Failure, Session, cpu_of


def cost(operation, user, team, entries, files):
    with Session(user) as session:
        session.say(work.enter(operation, team))
        before = cpu_of(session.server)
        said = session.say(work.commands(operation, range(files)))
        after = cpu_of(session.server)
    listed = said.count("entry")
    if listed != entries * work.LISTINGS.get(operation, 0):
        raise Failure(f"{operation}: {listed} entries were listed")
    return after - before


def main():
    user, team = sys.argv[1:3]
    entries, files = map(int, sys.argv[3:5])
    for operation in work.OPERATIONS:
        print(operation, cost(operation, user, team, entries, files))


if __name__ == "__main__":
    main()
