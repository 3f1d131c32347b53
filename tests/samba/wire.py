#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""An SMB client for requests that smbclient does not make.

usage: wire.py USER [PASSWORD] <SCRIPT
The script is Python with the names of this file, a statement a line; "me" is the connection and
"h" a handle. A request that the server refuses prints the name of its status, and the script goes
on with the next line.
"""
import os
import socket
import struct
import sys
import time

from impacket import nt_errors, smb3
from impacket.smb3structs import *  # the protocol's own names
from impacket.smbconnection import SMBConnection

READ = FILE_READ_DATA | FILE_READ_EA | FILE_READ_ATTRIBUTES
WRITE = FILE_WRITE_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES
SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE
FSCTL_SET_ZERO_DATA = 0x980C8
# Classes of information, by their numbers in the protocol.
CLASS_DIRECTORY, CLASS_BASIC, CLASS_RENAME, CLASS_LINK, CLASS_NAMES = 1, 4, 10, 11, 12
CLASS_DISPOSITION, CLASS_FULL_EA, CLASS_ALLOCATION, CLASS_END_OF_FILE = 13, 15, 19, 20
INFO_FILE, INFO_SECURITY = 1, 3
NO_HANDLE = bytes(16)


class Refused(Exception):
    """The server's answer to a request, by the name of its status."""

    def __init__(self, status):
        super().__init__(nt_errors.ERROR_MESSAGES.get(status, (hex(status), ""))[0])
        self.status = status


class Context:
    """A create context, as impacket sends them."""

    def __init__(self, name, data, last=True):
        self.bytes = struct.pack("<LHHHHL", 0, 16, 4, 0, 24, len(data)) + name + bytes(4) + data

    def getData(self):
        return self.bytes


def ea_list(pairs):
    """Extended attributes as the protocol packs them."""
    packed = []
    for name, value in pairs:
        entry = struct.pack("<BBH", 0, len(name), len(value)) + name.encode() + b"\0" + value
        packed.append(entry + bytes(-len(entry) % 4))
    ends = [struct.pack("<L", len(entry) + 4) for entry in packed[:-1]] + [bytes(4)]
    return b"".join(end + entry for end, entry in zip(ends, packed))


class Client:
    """A connection to the share; handles are numbers of the protocol."""

    def __init__(self, user, password=None, share="tavrix"):
        self.user, self.password = user, user if password is None else password
        self.connection = SMBConnection("127.0.0.1", "127.0.0.1", sess_port=445, timeout=20,
                                        preferredDialect=SMB2_DIALECT_21)
        self._checked(self.connection.login, self.user, self.password)
        self.smb = self.connection._SMBConnection
        self.tree = self._checked(self.connection.connectTree, share)

    @staticmethod
    def _checked(call, *args, **named):
        try:
            return call(*args, **named)
        except smb3.SessionError as error:
            raise Refused(error.get_error_code()) from None
        except Exception as error:
            code = getattr(error, "getErrorCode", None)
            if code is None:
                raise
            raise Refused(code()) from None

    def open(self, name, access=READ, disposition=FILE_OPEN, options=0, share=SHARE_ALL,
             attributes=0x80, oplock=0, contexts=None):
        return self._checked(self.smb.create, self.tree, name, access, share, options, disposition,
                             attributes, oplockLevel=oplock, createContexts=contexts)

    def write(self, handle, data, at=0):
        return self._checked(self.smb.write, self.tree, handle, data, at, len(data))

    def read(self, handle, size=4096, at=0):
        return self._checked(self.smb.read, self.tree, handle, at, size)

    def close(self, handle):
        self._checked(self.smb.close, self.tree, handle)

    def set(self, handle, number, data):
        self._checked(self.smb.setInfo, self.tree, handle, data, INFO_FILE, number)

    def query(self, handle, number, data=b""):
        return self._checked(self.smb.queryInfo, self.tree, handle, data, INFO_FILE, number)

    def resize(self, handle, size):
        self.set(handle, CLASS_END_OF_FILE, struct.pack("<Q", size))

    def allocate(self, handle, size):
        self.set(handle, CLASS_ALLOCATION, struct.pack("<Q", size))

    def delete(self, handle, wanted=True):
        self.set(handle, CLASS_DISPOSITION, struct.pack("<B", wanted))

    def _named(self, handle, number, name, replace):
        wide = name.replace("/", "\\").encode("utf-16le")
        self.set(handle, number, struct.pack("<B7xQL", replace, 0, len(wide)) + wide)

    def rename(self, handle, name, replace=False):
        self._named(handle, CLASS_RENAME, name, replace)

    def link(self, handle, name, replace=False):
        self._named(handle, CLASS_LINK, name, replace)

    def set_basic(self, handle, attributes=0, when=0):
        self.set(handle, CLASS_BASIC, struct.pack("<QQQQL4x", when, when, when, when, attributes))

    def set_ea(self, handle, name, value=b""):
        """An empty value removes the attribute."""
        self.set(handle, CLASS_FULL_EA, ea_list([(name, value)]))

    def zero(self, handle, start, end):
        self.control(handle, FSCTL_SET_ZERO_DATA, struct.pack("<QQ", start, end))

    def set_access_list(self, handle):
        """Everybody may do everything."""
        everybody = bytes([1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0])
        entry = struct.pack("<BBHL", 0, 0, 20, 0x1F01FF) + everybody
        acl = struct.pack("<BBHHH", 2, 0, 8 + len(entry), 1, 0) + entry
        descriptor = struct.pack("<BBHLLLL", 1, 0, 0x8004, 0, 0, 0, 20) + acl
        self._checked(self.smb.setInfo, self.tree, handle, descriptor, INFO_SECURITY, 0, 4)

    def control(self, handle, code, data=b""):
        return self._checked(self.smb.ioctl, self.tree, handle, code, SMB2_0_IOCTL_IS_FSCTL, data, 0,
                             65536)

    def names(self, handle, pattern="*"):
        """The names in a folder, as the server tells them to this client."""
        found = []
        try:
            while True:
                data = self._checked(self.smb.queryDirectory, self.tree, handle, pattern,
                                     informationClass=CLASS_NAMES)
                while data:
                    step, _, length = struct.unpack_from("<LLL", data)
                    found.append(data[12:12 + length].decode("utf-16le"))
                    data = data[step:] if step else b""
        except Refused as error:
            if error.args[0] not in ("STATUS_NO_MORE_FILES", "STATUS_NO_SUCH_FILE"):
                raise
        return [name for name in found if name not in (".", "..")]

    def watch(self, handle, tree=True):
        """Asks for notices about a folder; told() collects what came."""
        request = struct.pack("<HHL", 32, 1 if tree else 0, 65536) + handle
        packet = self.smb.SMB_PACKET()
        packet["Command"] = SMB2_CHANGE_NOTIFY
        packet["TreeID"] = self.tree
        packet["Data"] = request + struct.pack("<LL", 0xFFF, 0)
        return self.smb.sendSMB(packet)

    def told(self, patience):
        """The names in the notices that arrive within so many seconds."""
        found = []
        wire = self.smb.get_socket()
        wire.settimeout(patience)
        try:
            while True:
                length = struct.unpack(">L", self._exactly(wire, 4))[0] & 0xFFFFFF
                answer = self._exactly(wire, length)
                wire.settimeout(patience)
                status, command = struct.unpack_from("<LH", answer, 8)
                if command != SMB2_CHANGE_NOTIFY or status != 0:
                    continue
                start, size = struct.unpack_from("<HL", answer, 66)
                data = answer[start:start + size]
                while data:
                    step, action, size = struct.unpack_from("<LLL", data)
                    found.append((action, data[12:12 + size].decode("utf-16le").replace("\\", "/")))
                    data = data[step:] if step else b""
        except socket.timeout:
            return found

    @staticmethod
    def _exactly(wire, count):
        data = b""
        while len(data) < count:
            chunk = wire.recv(count - len(data))
            if not chunk:
                raise EOFError
            data += chunk
        return data

    def drop(self):
        """Closes the socket without a logoff, as a pulled cable does."""
        self.smb.get_socket().close()

    def leave(self):
        """Ends the connection to the share; the server has flushed its events when it answers."""
        try:
            self.smb.disconnectTree(self.tree)
        except Exception:  # it is gone already
            pass


def open_durable(client, name, access):
    """An open that survives its connection."""
    return client.open(name, access, oplock=SMB2_OPLOCK_LEVEL_BATCH,
                       contexts=[Context(b"DHnQ", bytes(16))])


def come_back(user, name, handle, access, patience=5):
    """A new connection that takes the durable handle over; the server may still notice the loss."""
    end = time.monotonic() + patience
    while True:
        client = Client(user)
        try:
            context = Context(b"DHnC", handle)
            return client, client.open(name, access, oplock=SMB2_OPLOCK_LEVEL_BATCH,
                                       contexts=[context])
        except Refused:
            if time.monotonic() > end:
                raise
            client.drop()
            time.sleep(0.05)


def main():
    try:
        names = {**globals(), "me": Client(*sys.argv[1:]), "h": NO_HANDLE}
    except Refused as error:
        print(f"connect: {error}")
        return
    for line in sys.stdin.read().splitlines():
        try:
            exec(line.strip(), names)
        except Refused as error:
            print(error)
    names["me"].leave()


if __name__ == "__main__":
    main()
    sys.stdout.flush()
    os._exit(0)  # a handle that is left open is the server's to close
