# SPDX-License-Identifier: LGPL-3.0-or-later
"""SMB2 requests, byte for byte, on a connection that impacket has set up.

impacket makes names tidy and refuses what it does not know; a client that tries everything must be
able to send any name, mask, level and context. So only the session is impacket's; every request here
is packed by hand, and an answer is the server's status and what it carried."""

import struct

from impacket import smb3, smb3structs
from impacket.smbconnection import SMBConnection

CREATE, CLOSE, FLUSH, READ, WRITE, LOCK, IOCTL = 5, 6, 7, 8, 9, 10, 11
QUERY_DIRECTORY, NOTIFY, QUERY_INFO, SET_INFO = 14, 15, 16, 17

HEADER = 64  # bytes before each body
LAST = b"\xff" * 16  # the handle of an earlier request in a compound; of nothing, alone


class Answer:
    """The server's answer: a status and the body of the reply."""

    def __init__(self, packet):
        self.status = packet["Status"]
        self.body = packet["Data"]

    @property
    def ok(self):
        return self.status == 0

    def buffer(self, offset_at, length_at, wide_offset=False):
        """The part of the reply that an offset and a length in its body point at."""
        offset = struct.unpack_from("<I" if wide_offset else "<H", self.body, offset_at)[0]
        length = struct.unpack_from("<I", self.body, length_at)[0]
        return self.body[offset - HEADER : offset - HEADER + length] if length else b""


def utf16(name):
    """A name as bytes; `hex:` sends bytes as they are, valid or not."""
    return bytes.fromhex(name[4:]) if name.startswith("hex:") else name.encode("utf-16le", "surrogatepass")


def context(tag, data):
    """One create context, without the link to the next."""
    name = tag if isinstance(tag, bytes) else tag.encode()
    at = (16 + len(name) + 7) & ~7
    head = struct.pack("<IHHHHI", 0, 16, len(name), 0, at if data else 0, len(data)) + name
    return head.ljust(at, b"\0") + data


def chained(contexts):
    """The chain of create contexts: each is aligned and has the offset of the next."""
    packed = [context(tag, data) for tag, data in contexts]
    out = b""
    for number, one in enumerate(packed):
        if number + 1 < len(packed):
            size = (len(one) + 7) & ~7
            one = struct.pack("<I", size) + one[4:].ljust(size - 4, b"\0")
        out += one
    return out


def contexts_in(data):
    """The create contexts of a reply, by their tags."""
    found = {}
    while data:
        following, name_at, name_size, _, at, size = struct.unpack_from("<IHHHHI", data)
        found[data[name_at : name_at + name_size].decode("latin1")] = data[at : at + size]
        if following == 0:
            break
        data = data[following:]
    return found


class Wire:
    """One connection of one user to one share."""

    def __init__(self, user, password, share, dialect=smb3structs.SMB2_DIALECT_30):
        self.connection = SMBConnection("127.0.0.1", "127.0.0.1", preferredDialect=dialect, timeout=20)
        self.connection.login(user, password)
        self.is_guest = bool(self.connection.isGuestSession())
        self.server = self.connection.getSMBServer()
        self.tree = self.server.connectTree(share)

    def send(self, command, body):
        packet = self.server.SMB_PACKET()
        packet["Command"] = command
        packet["TreeID"] = self.tree
        packet["Data"] = body
        return self.server.sendSMB(packet)

    def receive(self, number):
        return Answer(self.server.recvSMB(number))

    def ask(self, command, body):
        return self.receive(self.send(command, body))

    def create(self, name, access, disposition, options, attributes=0, share=7, oplock=0, contexts=()):
        data = utf16(name)
        tail = data or b"\0"
        at = 0
        extra = chained(contexts)
        if extra:
            at = (HEADER + 56 + len(tail) + 7) & ~7
            tail = tail.ljust(at - HEADER - 56, b"\0") + extra
        return self.ask(CREATE, struct.pack(
            "<HBBIQQIIIIIHHII", 57, 0, oplock, 2, 0, 0, access, attributes, share, disposition, options,
            HEADER + 56, len(data), at, len(extra)) + tail)

    def close(self, handle):
        return self.ask(CLOSE, struct.pack("<HHI", 24, 0, 0) + handle)

    def flush(self, handle):
        return self.ask(FLUSH, struct.pack("<HHI", 24, 0, 0) + handle)

    def read(self, handle, offset, length):
        answer = self.ask(READ, struct.pack("<HBBIQ", 49, 0x50, 0, length, offset) + handle +
                          struct.pack("<IIIHH", 0, 0, 0, 0, 0) + b"\0")
        data = b""
        if answer.ok:
            at, _, size = struct.unpack_from("<BBI", answer.body, 2)
            data = answer.body[at - HEADER : at - HEADER + size]
        return answer, data

    def write(self, handle, offset, data):
        return self.ask(WRITE, struct.pack("<HHIQ", 49, HEADER + 48, len(data), offset) + handle +
                        struct.pack("<IIHHI", 0, 0, 0, 0, 0) + data)

    def lock(self, handle, offset, length, flags):
        return self.ask(LOCK, struct.pack("<HHI", 48, 1, 0) + handle +
                        struct.pack("<QQII", offset, length, flags, 0))

    def ioctl(self, handle, code, data=b"", room=65536):
        answer = self.ask(IOCTL, struct.pack("<HHI", 57, 0, code) + handle + struct.pack(
            "<IIIIIIII", HEADER + 56, len(data), 0, 0, 0, room, 1, 0) + (data or b"\0"))
        return answer, answer.buffer(32, 36, True) if answer.ok else b""

    def list(self, handle, level, pattern, flags=0, room=65536, index=0):
        name = utf16(pattern)
        answer = self.ask(QUERY_DIRECTORY, struct.pack("<HBBI", 33, level, flags, index) + handle +
                          struct.pack("<HHI", HEADER + 32, len(name), room) + (name or b"\0"))
        return answer, answer.buffer(2, 4) if answer.ok else b""

    def notify_begin(self, handle, wanted, recursive):
        return self.send(NOTIFY, struct.pack("<HHI", 32, 1 if recursive else 0, 65536) + handle +
                         struct.pack("<II", wanted, 0))

    def notify_end(self, number):
        answer = self.receive(number)
        return answer, answer.buffer(2, 4) if answer.ok else b""

    def query(self, handle, kind, level, extra=0, data=b"", flags=0):
        answer = self.ask(QUERY_INFO, struct.pack(
            "<HBBIHHIII", 41, kind, level, 65536, HEADER + 40, 0, len(data), extra, flags) + handle +
            (data or b"\0"))
        return answer, answer.buffer(2, 4) if answer.ok else b""

    def set(self, handle, kind, level, data, extra=0):
        return self.ask(SET_INFO, struct.pack(
            "<HBBIHHI", 33, kind, level, len(data), HEADER + 32, 0, extra) + handle + (data or b"\0"))
