# SPDX-License-Identifier: LGPL-3.0-or-later
"""Clients that write files, one after the other, and remember which were acknowledged."""

import itertools
import threading
import time

from impacket.smb3structs import FILE_OPEN_IF, FILE_SHARE_READ, FILE_WRITE_DATA
from impacket.smbconnection import SMBConnection

PATIENCE = 4  # seconds until a client gives up an answer


def connect(address, user="anna", patience=PATIENCE):
    """A connection to the share at a public address, as that user."""
    client = SMBConnection("TAVRIX", address, sess_port=445, timeout=patience)
    client.login(user, user)
    return client, client.connectTree("tavrix")


def put(client, tree, path, text=b"content"):
    """Makes the file. When this returns, the server has acknowledged the write and the close."""
    handle = client.createFile(tree, path, desiredAccess=FILE_WRITE_DATA, shareMode=FILE_SHARE_READ,
                               creationDisposition=FILE_OPEN_IF)
    client.writeFile(tree, handle, text)
    client.closeFile(tree, handle)


class Writer(threading.Thread):
    """Writes until it is told to stop. A client that loses its server takes the next address."""

    def __init__(self, name, addresses):
        super().__init__(daemon=True)
        self.name = name
        self.addresses = itertools.cycle(addresses)
        self.acknowledged = []
        self.longest_gap = 0.0
        self._ends = threading.Event()

    def run(self):
        connection = None
        last = time.monotonic()
        for number in itertools.count():
            if self._ends.is_set():
                return
            name = f"{self.name}_{number}.txt"
            try:
                connection = connection or connect(next(self.addresses))
                put(*connection, "Shared\\Design\\" + name)
            except Exception:  # whatever it is, this write is not acknowledged
                connection = None
                time.sleep(0.05)
                continue
            self.acknowledged.append(name)
            self.longest_gap = max(self.longest_gap, time.monotonic() - last)
            last = time.monotonic()
            time.sleep(0.02)

    def stop(self):
        self._ends.set()
        self.join(60)


class Crowd:
    """Writers on all addresses, for the time of a with statement."""

    def __init__(self, label, addresses, count=3):
        turns = [addresses[i:] + addresses[:i] for i in range(len(addresses))]
        self.writers = [Writer(f"{label}_{i}", turns[i % len(turns)]) for i in range(count)]

    def __enter__(self):
        for writer in self.writers:
            writer.start()
        self.await_progress()
        return self

    def __exit__(self, *_):
        for writer in self.writers:
            writer.stop()

    def acknowledged(self):
        return [name for writer in self.writers for name in writer.acknowledged]

    def longest_gap(self):
        return max(writer.longest_gap for writer in self.writers)

    def await_progress(self, each=5, seconds=120):
        """Until every writer has that many more acknowledged writes."""
        goals = [(writer, len(writer.acknowledged) + each) for writer in self.writers]
        end = time.monotonic() + seconds
        while any(len(writer.acknowledged) < goal for writer, goal in goals):
            if time.monotonic() > end:
                raise AssertionError(f"writers do not get on within {seconds} s")
            time.sleep(0.05)
