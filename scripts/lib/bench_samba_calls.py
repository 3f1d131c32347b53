#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Counts the system calls of the process that serves one client: bench_samba_calls.py USER TEAM ENTRIES OPERATION...

Prints lines "operation call count", with the count for one file or one listed entry. The connection is warm: it
has done the same for other files, or has listed another folder. The calls of the same for no file and no entry are
taken off."""
import subprocess
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path

import bench_samba_work as work
from smb_session import Failure, Session

WARM = range(10)
COUNTED = range(10, 60)
EPOLL_WAIT = "232"


def await_idle(process):
    """The server still works a little after its answer."""
    while True:
        state = Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()[0]
        if state == "S" and Path(f"/proc/{process}/syscall").read_text().split()[0] == EPOLL_WAIT:
            return
        time.sleep(0.001)


def calls_of(process, action):
    """The process's system calls during the action, by name."""
    with tempfile.NamedTemporaryFile("r") as summary:
        strace = subprocess.Popen(["strace", "-f", "-c", "-U", "calls,name", "-o", summary.name, "-p", str(process)],
                                  stderr=subprocess.PIPE, text=True)
        attached = strace.stderr.readline()
        if "attached" not in attached:
            sys.exit(f"strace cannot attach: {attached}")
        action()
        await_idle(process)
        strace.terminate()
        strace.communicate()
        rows = (line.split() for line in summary.readlines())
        return Counter({row[1]: int(row[0]) for row in rows if len(row) == 2 and row[0].isdigit() and row[1] != "total"})


def calls_of_listing(operation, user, team, entries):
    """The calls for one entry, listed for the first time or again."""
    with Session(user) as session:
        def listing():
            said = session.say(work.commands("list", []))
            if said.count("entry") != entries:
                raise Failure(f"{said.count('entry')} entries were listed")
        session.say(work.enter("list", team) + work.list_nothing(team))
        none = calls_of(session.server, lambda: session.say(work.list_nothing(team)))
        if operation == "list-again":
            listing()
        return difference(calls_of(session.server, listing), none, entries)


def calls_of_operation(operation, user, team):
    """The calls for one file."""
    with Session(user) as session:
        session.say(work.enter(operation, team) + work.commands(operation, WARM))
        none = calls_of(session.server, lambda: session.say([]))
        some = calls_of(session.server, lambda: session.say(work.commands(operation, COUNTED)))
        return difference(some, none, len(COUNTED))


def difference(some, none, count):
    return {call: (some[call] - none[call]) / count for call in some if some[call] != none[call]}


def perform(operation, user, team):
    """Leaves the files as the counted operation would."""
    with Session(user) as session:
        session.say(work.enter(operation, team))
        session.say(work.commands(operation, [*WARM, *COUNTED]))


def main():
    user, team, entries, wanted = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:]
    for operation in work.OPERATIONS:
        if operation in wanted:
            counts = (calls_of_listing(operation, user, team, entries) if operation in work.LISTINGS
                      else calls_of_operation(operation, user, team))
            for call, count in counts.items():
                print(operation, call, f"{count:.4f}")
        elif operation not in work.LISTINGS:
            perform(operation, user, team)


if __name__ == "__main__":
    main()
