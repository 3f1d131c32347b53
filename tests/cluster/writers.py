# SPDX-License-Identifier: LGPL-3.0-or-later
"""Clients that work, one after the other or all at once, and remember what the server has answered."""

import itertools
import random
import threading
import time

from impacket.smb3structs import FILE_OPEN_IF, FILE_SHARE_READ, FILE_WRITE_DATA
from impacket.smbconnection import SessionError, SMBConnection

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


class Asker(threading.Thread):
    """Asks again and again whether a user may write, and remembers when which answer came.

    It keeps its connection as long as the server does, or connects anew for each question.
    """

    def __init__(self, address, user, keeps_connection):
        super().__init__(daemon=True)
        self.name = f"{user} at {address}, {'old' if keeps_connection else 'new'} connection"
        self._address, self._user, self._keeps = address, user, keeps_connection
        self.answers = []  # when the question was asked, and whether the user may
        self._ends = threading.Event()

    def run(self):
        connection = None
        while not self._ends.wait(0.1):
            asked = time.monotonic()
            try:
                connection = connection or connect(self._address, self._user)
                put(*connection, f"Shared\\Design\\asked_{self._user}.txt")
                self.answers.append((asked, True))
            except SessionError as refusal:
                if "ACCESS_DENIED" in str(refusal):
                    self.answers.append((asked, False))
                else:
                    connection = None
            except Exception:  # no server there, or no answer: that is no verdict
                connection = None
            if not self._keeps:
                connection = None

    def last(self, since):
        """The last answer to a question that was asked since then; None without one."""
        return next((may for asked, may in reversed(self.answers) if asked >= since), None)

    def allowed_since(self, begin):
        return [asked - begin for asked, may in self.answers if may and asked >= begin]

    def stop(self):
        self._ends.set()
        self.join(60)


class Gardener(threading.Thread):
    """Makes, renames and deletes files and folders in a bed of its own, at all addresses in turn.

    When no answer comes, nobody knows whether the step was done: it begins another bed then, and remembers the step.
    """

    def __init__(self, number, addresses, seed):
        super().__init__(daemon=True)
        self.name = f"bed{number}"
        self.done = 0
        self.beds = {}  # the name of a bed, and the step that got no answer: ("RENAME", path, new_path)
        self._dice = random.Random(seed)
        self._addresses = itertools.cycle(addresses[number % len(addresses):] + addresses[:number % len(addresses)])
        self._connection = None
        self._ends = threading.Event()

    def run(self):
        while not self._ends.is_set():
            bed = f"{self.name}_{len(self.beds)}"
            self.beds[bed] = None
            self._work_in(bed)

    def _work_in(self, bed):
        folders, files = [bed], []
        step = ("MKDIR", bed, "")
        for number in itertools.count():
            if not self._did(step):
                self.beds[bed] = step
                return
            if self._ends.is_set():
                return
            self.done += 1
            self._note(step, folders, files)
            step = self._next(number, folders, files)

    def _next(self, number, folders, files):
        kind = self._dice.choice(["CREATE", "CREATE", "CREATE", "MKDIR", "RENAME", "RENAME", "RENAME folder", "UNLINK"])
        parent = self._dice.choice(folders)
        if kind == "MKDIR":
            return ("MKDIR", f"{parent}/d{number}", "")
        if kind == "RENAME folder" and len(folders) > 1:
            folder = self._dice.choice(folders[1:])
            return ("RENAME", folder, f"{folders[0]}/r{number}")
        if kind == "RENAME" and files:
            return ("RENAME", self._dice.choice(files), f"{parent}/f{number}")
        if kind == "UNLINK" and files:
            return ("UNLINK", self._dice.choice(files), "")
        return ("CREATE", f"{parent}/f{number}", "")

    @staticmethod
    def _note(step, folders, files):
        kind, path, new_path = step
        if kind == "MKDIR" and path not in folders:
            folders.append(path)
        elif kind == "CREATE":
            files.append(path)
        elif kind == "UNLINK":
            files.remove(path)
        elif kind == "RENAME":
            for names in (folders, files):
                names[:] = [new_path + name[len(path):] if (name + "/").startswith(path + "/") else name for name in names]

    def _did(self, step):
        """False when no answer came. Until the server is reached nothing has happened."""
        while self._connection is None or self._dice.randrange(20) == 0:
            if self._ends.is_set() and self._connection is None:
                return True
            try:
                self._connection = connect(next(self._addresses))
                break
            except Exception:
                self._connection = None
                time.sleep(0.05)
        try:
            self._do(step)
            return True
        except Exception:
            self._connection = None
            return False

    def _do(self, step):
        client, tree = self._connection
        kind, path, new_path = (part.replace("/", "\\") for part in step)
        folder = "Shared\\Design\\"
        if kind == "MKDIR":
            client.createDirectory("tavrix", folder + path)
        elif kind == "CREATE":
            put(client, tree, folder + path)
        elif kind == "UNLINK":
            client.deleteFile("tavrix", folder + path)
        else:
            client.rename("tavrix", folder + path, folder + new_path)

    def stop(self):
        self._ends.set()
        self.join(60)


class Crowd:
    """Writers on all addresses, for the time of a with statement."""

    def __init__(self, label, addresses, count=16):
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
