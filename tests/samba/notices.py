#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Watches a folder as one user while a script acts as others, and prints the notices.

usage: notices.py USER FOLDER FENCE <SCRIPT
The script is Python with the names of wire.py, a statement a line. Afterwards the administrator
makes the folder FENCE, the last thing that is told; with "-" before it the user may not see it, and
the administrator's own watch says when its notice has gone round. A notice is a line: what
happened, and the name below the watched folder.
"""
import sys

from wire import *

ACTIONS = {1: "ADDED", 2: "REMOVED", 3: "MODIFIED", 4: "OLD", 5: "NEW"}
STATUS_PENDING = 0x103
ROUND_TRIPS = 5  # the process reads what the notify daemon sent in between


class Watch:
    """A watch of a folder and everything below it, renewed after each notice."""

    def __init__(self, user, folder):
        self.client = Client(user)
        self.handle = self.client.open(folder, READ, options=FILE_DIRECTORY_FILE)
        self.told = []
        self.arm()

    def arm(self):
        """Takes the notices that have arrived; true when the server waits for changes."""
        self.is_armed = True
        self.client.watch(self.handle)
        while self.answer() != STATUS_PENDING:
            self.is_armed = True
            self.client.watch(self.handle)

    def answer(self, wanted=SMB2_CHANGE_NOTIFY):
        """The status of the next answer to such a request; takes notices that come before it."""
        while True:
            data = self.client.smb._NetBIOSSession.recv_packet(20).get_trailer()
            status, command = struct.unpack_from("<LH", data, 8)
            assert status in (0, STATUS_PENDING), hex(status)
            if command == SMB2_CHANGE_NOTIFY and status == 0:
                start, size = struct.unpack_from("<HL", data, 66)
                self.take(data[start:start + size])
                self.is_armed = False
            if command == wanted:
                return status

    def take(self, data):
        while data:
            step, action, size = struct.unpack_from("<LLL", data)
            name = data[12:12 + size].decode("utf-16le").replace("\\", "/")
            self.told.append((ACTIONS[action], name))
            data = data[step:] if step else b""

    def until(self, name):
        """Waits for a notice about that name; all earlier ones have arrived by then."""
        while not any(told[1].endswith(name) for told in self.told):
            self.answer()
            self.arm()

    def settle(self):
        """Takes the notices that the server process has by now."""
        for _ in range(ROUND_TRIPS):
            packet = self.client.smb.SMB_PACKET()
            packet["Command"] = SMB2_ECHO
            packet["Data"] = SMB2Echo()
            self.client.smb.sendSMB(packet)
            self.answer(SMB2_ECHO)
        if not self.is_armed:
            self.arm()


def restart_daemon(admin, *watches):
    """Kills the notify daemon, and waits until the next one knows the watches."""
    session = open("/scratch/samba/smbd.pid").read().strip()
    os.system(f"kill -KILL $(pgrep -s {session} -f notifyd)")
    for number in range(200):
        name = f"Shared/Team/probe{number}"
        admin.close(admin.open(name, READ, FILE_CREATE, FILE_DIRECTORY_FILE))
        for watch in watches:
            watch.settle()
        if all(any("probe" in told[1] for told in watch.told) for watch in watches):
            return
        time.sleep(0.05)
    raise TimeoutError


def main():
    user, folder, fence = sys.argv[1:]
    watch = Watch(user, folder)
    witness = Watch("Administrator", "")
    admin = Client("Administrator")
    for line in sys.stdin.read().splitlines():
        exec(line.strip(), {**globals(), "admin": admin, "watch": watch, "witness": witness})
    end = fence.rsplit("/", 1)[-1]
    admin.open(fence.lstrip("-"), READ, FILE_CREATE, FILE_DIRECTORY_FILE)
    witness.until(end)
    if fence.startswith("-"):
        watch.settle()
    else:
        watch.until(end)
    for action, name in watch.told:
        if not name.endswith(end) and "probe" not in name:
            print(action, name)


if __name__ == "__main__":
    main()
    sys.stdout.flush()
    os._exit(0)
