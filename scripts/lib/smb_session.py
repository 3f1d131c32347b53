# SPDX-License-Identifier: LGPL-3.0-or-later
"""A client that stays connected to the private world's server, and the process that serves it.

Needs a server that scripts/lib/samba_world.sh has started, in the same world."""
import os
import re
import subprocess
import threading
from pathlib import Path

FOLDER = "/scratch/samba"
PORT = 445


class Failure(SystemExit):
    """A client, a command or the server did not do what was asked, so there is nothing to measure.

    A program that does not catch it ends with its text and status 1."""


class Session:
    """One smbclient, ready to work when the constructor returns. The user's password is the user's name."""

    def __init__(self, user):
        # Unbuffered input: smbclient waits for more while its own buffer still holds commands.
        self._client = subprocess.Popen(
            ["stdbuf", "-i0", "-oL", "smbclient", "-s", f"{FOLDER}/smb.conf", "//127.0.0.1/tavrix", "-U",
             f"{user}%{user}"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self._marks = 0
        self.say([])
        self.server = _server_of(self._client.pid)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def say(self, commands):
        """Runs the commands and returns what the client printed. All of them must succeed."""
        self.begin(commands)
        return self.end()

    def begin(self, commands):
        """Sends the commands and does not wait."""
        self._marks += 1
        lines = [*commands, f"!echo '={self._marks}='"]
        # A thread, because the client stops reading when nobody reads its output.
        self._writer = threading.Thread(target=self._write, args=("\n".join(lines) + "\n",))
        self._writer.start()

    def end(self):
        """Waits for the commands of begin()."""
        said = []
        for line in self._client.stdout:
            if line.rstrip("\n").endswith(f"={self._marks}="):
                break
            said.append(line)
        else:
            raise Failure(f"the client ended: {''.join(said)[-500:]}")
        self._writer.join()
        text = "".join(said)
        refusal = re.search(r".*NT_STATUS_.*", text)
        if refusal:
            raise Failure(f"the server refused: {refusal.group()}")
        return text

    def close(self):
        self._client.stdin.close()
        self._client.stdout.read()
        self._client.wait()

    def _write(self, text):
        try:
            self._client.stdin.write(text)
            self._client.stdin.flush()
        except BrokenPipeError:
            pass  # end() tells why


def cpu_of(process):
    """The CPU time of all threads of the process, in nanoseconds."""
    return sum(int((task / "schedstat").read_text().split()[0])
               for task in Path(f"/proc/{process}/task").iterdir())


def server_processes():
    """All processes of the server."""
    master = Path(f"{FOLDER}/smbd.pid").read_text().strip()
    found = subprocess.run(["pgrep", "-s", master], capture_output=True, text=True, check=True)
    return [int(process) for process in found.stdout.split()]


def _server_of(client):
    """The process at the other end of the client's connection."""
    ports = {inode: (local, remote) for inode, local, remote in _connections()}
    near = [ports[inode] for inode in _sockets_of(client) if inode in ports]
    far = {inode for inode, (local, remote) in ports.items() if (remote, local) in near}
    served_by = [process for process in server_processes() if far & _sockets_of(process)]
    if len(served_by) != 1:
        raise Failure(f"the client has {len(near)} connections, and {len(served_by)} processes serve them")
    return served_by[0]


def _connections():
    """Inode, local port and remote port of the sockets that connect a client and the server."""
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        for line in Path(table).read_text().splitlines()[1:]:
            fields = line.split()
            local, remote = (int(address.rsplit(":", 1)[1], 16) for address in fields[1:3])
            if fields[3] == "01" and PORT in (local, remote):
                yield fields[9], local, remote


def _sockets_of(process):
    inodes = set()
    for descriptor in Path(f"/proc/{process}/fd").iterdir():
        try:
            target = os.readlink(descriptor)
        except FileNotFoundError:
            continue  # closed meanwhile
        if target.startswith("socket:["):
            inodes.add(target[len("socket:["):-1])
    return inodes
