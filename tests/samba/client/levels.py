# SPDX-License-Identifier: LGPL-3.0-or-later
"""Layouts of information levels: packs those that a client sets, and finds the names in answers."""

import struct

REQUEST_RESUME_KEY = 0x00140078

# Levels of directory listings: number, offset of the name's length, offset of the name.
LISTINGS = {
    "directory": (1, 60, 64),
    "full": (2, 60, 68),
    "both": (3, 60, 94),
    "names": (12, 8, 12),
    "both ids": (37, 60, 104),
    "full ids": (38, 60, 80),
}

BASIC, RENAME, LINK, DISPOSITION, POSITION, EA, MODE = 4, 10, 11, 13, 14, 15, 16
ALLOCATION, END_OF_FILE, SHORT_NAME, DISPOSITION_EX = 19, 20, 40, 64
NAME, ALL, ALTERNATE_NAME, STREAMS, NORMALIZED_NAME = 9, 18, 21, 22, 48


def joined(folder, name):
    """The path in the share, with slashes and without a stream's name."""
    folder = folder.replace("\\", "/").strip("/")
    name = name.replace("\\", "/")
    if name in ("", ".", ".."):
        return folder
    return f"{folder}{'' if name.startswith(':') else '/'}{name}" if folder else name


def chain(data):
    """The entries of a list in which each begins with the distance to the next."""
    while data:
        yield data
        following = struct.unpack_from("<I", data)[0]
        if following == 0:
            return
        data = data[following:]


def text(data):
    return data.decode("utf-16le", "backslashreplace")


def entries(level, data):
    """The names of a listing, and the short ones where the level has them."""
    _, length_at, name_at = LISTINGS[level]
    names = []
    for entry in chain(data):
        size = struct.unpack_from("<I", entry, length_at)[0]
        names.append(text(entry[name_at : name_at + size]))
        if level.startswith("both") and entry[68]:
            names.append(text(entry[70 : 70 + entry[68]]))
    return names


def notices(data):
    names = []
    for entry in chain(data):
        size = struct.unpack_from("<I", entry, 8)[0]
        names.append(text(entry[12 : 12 + size]))
    return names


def counted_name(data, at):
    size = struct.unpack_from("<I", data, at)[0]
    return text(data[at + 4 : at + 4 + size])


def stream_names(data):
    names = []
    for entry in chain(data):
        size = struct.unpack_from("<I", entry, 4)[0]
        names.append(text(entry[24 : 24 + size]))
    return names


def names_of_query(asked, kind, level, data):
    """The names in an answer about an object that the client opened by that name."""
    if kind != 1:
        return []
    if level in (NAME, NORMALIZED_NAME):
        return [counted_name(data, 0).replace("\\", "/").lstrip("/")]
    if level == ALL:
        return [counted_name(data, 96).replace("\\", "/").lstrip("/")]
    if level == STREAMS:
        return [joined(asked, name) for name in stream_names(data) if name != "::$DATA"]
    return []


def attribute(name, value):
    """One extended attribute, as lists of them hold it."""
    return struct.pack("<IBBH", 0, 0, len(name), len(value)) + name.encode() + b"\0" + value.encode()


def packed(step):
    """The body of a request that sets that level."""
    level = step["level"]
    if level == BASIC:
        times = [step.get(name, 0) for name in ("created", "accessed", "written", "changed")]
        return struct.pack("<qqqqII", *times, step.get("attributes", 0), 0)
    if level in (RENAME, LINK):
        name = step["to"].encode("utf-16le")
        return struct.pack("<B7xQI", step.get("replace", 0), 0, len(name)) + name
    if level == DISPOSITION:
        return struct.pack("<B", step.get("value", 1))
    if level == DISPOSITION_EX:
        return struct.pack("<I", step.get("value", 3))
    if level == MODE:
        return struct.pack("<I", step.get("value", 0))
    if level == EA:
        return attribute(step.get("attribute", "COLOUR"), step.get("value", "blue"))
    if level == SHORT_NAME:
        name = step["to"].encode("utf-16le")
        return struct.pack("<I", len(name)) + name
    return struct.pack("<q", step.get("value", 0))  # positions and sizes
