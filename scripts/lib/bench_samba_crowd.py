#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Measures many clients at once: bench_samba_crowd.py USER TEAM ENTRIES CONNECTIONS PASSES FILES SWAP_FOLDER

In each pass every client lists the same folder of so many entries, and puts, gets, renames and deletes so many files
in a folder of its own. Meanwhile the map of SWAP_FOLDER is imported every ten seconds, unless SWAP_FOLDER is "-".
Prints one line of numbers; print_result() names them."""
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import bench_samba_work as work
from smb_session import Failure, Session, cpu_of

PERIOD = 10  # seconds from one import to the next
SAMPLE = 0.1  # seconds


def commands_of(passes, files):
    once = ["ls ..\\list\\*"]
    for operation in ("put", "get", "rename", "delete"):
        once += work.commands(operation, range(files))
    return once * passes


def shared_memory():
    """Bytes of System V shared memory in use, with the segments that are removed and still attached."""
    head, *rows = Path("/proc/sysvipc/shm").read_text().splitlines()
    columns = [head.split().index(name) for name in ("rss", "swap")]
    return sum(int(row.split()[column]) for row in rows for column in columns)


class Background(threading.Thread):
    """Something that happens every so often until it is stopped."""

    def __init__(self, period, action):
        super().__init__(daemon=True)
        self._period, self._action = period, action
        self._stopped = threading.Event()
        self.trouble = None

    def run(self):
        following = time.monotonic()
        while not self._stopped.wait(max(0, following - time.monotonic())):
            try:
                self._action()
            except Exception as trouble:  # stop() tells it to the measuring thread
                self.trouble = trouble
                return
            following += self._period

    def stop(self):
        self._stopped.set()
        self.join()
        if self.trouble:
            raise Failure(f"the background failed: {self.trouble}")


class Swaps(Background):
    """Imports of the map; each becomes current, in the other table."""

    def __init__(self, folder):
        self._folder, self.count = Path(folder), 0
        super().__init__(PERIOD, self._swap)

    def _swap(self):
        files = [str(self._folder / name) for name in ("size.json", "data.json")]
        subprocess.run(["tavrixctl", "map", "import", "--trust", *files], stdout=subprocess.DEVNULL, check=True)
        self.count += 1


class Watch(Background):
    """The most shared memory in use."""

    def __init__(self):
        self.most = 0
        super().__init__(SAMPLE, self.look)

    def look(self):
        self.most = max(self.most, shared_memory())


def connect(user, team, connections):
    """That many sessions, each in its own folder and warm."""
    def session_of(number):
        session = Session(user)
        session.say([f'cd "Shared\\{team}\\{number}"', "ls"])
        return session

    with ThreadPoolExecutor(4) as pool:
        return list(pool.map(session_of, range(connections)))


def measure(sessions, commands, entries, passes):
    """Lets all sessions work at once. Returns their servers' CPU time and the time that passed, in nanoseconds."""
    def work_of(session):
        said = session.say(commands)
        if said.count("entry") != entries * passes:
            raise Failure(f"{said.count('entry')} entries were listed")

    before = sum(cpu_of(session.server) for session in sessions)
    begin = time.monotonic_ns()
    with ThreadPoolExecutor(len(sessions)) as pool:
        list(pool.map(work_of, sessions))
    elapsed = time.monotonic_ns() - begin
    return sum(cpu_of(session.server) for session in sessions) - before, elapsed


def print_result(**numbers):
    print(*(f"{name}={number}" for name, number in numbers.items()))


def main():
    user, team, swapped = sys.argv[1], sys.argv[2], sys.argv[7]
    entries, connections, passes, files = map(int, sys.argv[3:7])
    sessions = connect(user, team, connections)
    map_before = shared_memory()
    background = [Watch()] + ([Swaps(swapped)] if swapped != "-" else [])
    for each in background:
        each.start()
    cpu, elapsed = measure(sessions, commands_of(passes, files), entries, passes)
    for each in reversed(background):
        each.stop()
    swaps = sum(each.count for each in background[1:])
    time.sleep(1)  # idle connections let go of an earlier map within a quarter of a second
    print_result(connections=connections, cpu=cpu, elapsed=elapsed, swaps=swaps, before=map_before,
                 most=background[0].most, left=shared_memory())
    for session in sessions:
        session.close()


if __name__ == "__main__":
    main()
