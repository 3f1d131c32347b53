#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Makes another point release of the installed Samba: point_release.py FROM TO FOLDER FILE...

Copies each FILE that names the version FROM below FOLDER, under its whole path, with TO in its place: in the
version that a program prints, and in the versions of the symbols of Samba's private libraries, so that the dynamic
linker tells the two apart. Both versions have the same length. Prints the paths of the copied files."""
import struct
import sys
from pathlib import Path

VERSIONS_DEFINED, VERSIONS_NEEDED = 0x6FFFFFFD, 0x6FFFFFFE


def elf_hash(name):
    value = 0
    for byte in name:
        value = (value << 4) + byte
        high = value & 0xF0000000
        value = (value ^ (high >> 24)) & ~high & 0xFFFFFFFF
    return value


def sections(image):
    """(type, offset, size, linked section) of each section of a 64-bit file."""
    (table,) = struct.unpack_from("<Q", image, 0x28)
    size, count = struct.unpack_from("<HH", image, 0x3A)
    found = []
    for index in range(count):
        _, kind, _, _, offset, length, link = struct.unpack_from("<IIQQQQI", image, table + index * size)
        found.append((kind, offset, length, link))
    return found


def text_at(image, at):
    return image[at:image.index(b"\0", at)]


def renew_defined(image, offset, strings):
    """The hash of each version that the file defines."""
    while True:
        _, _, _, _, _, names, following = struct.unpack_from("<HHHHIII", image, offset)
        (name,) = struct.unpack_from("<I", image, offset + names)
        struct.pack_into("<I", image, offset + 8, elf_hash(text_at(image, strings + name)))
        if following == 0:
            return
        offset += following


def renew_needed(image, offset, strings):
    """The hash of each version that the file asks another one for."""
    while True:
        _, _, _, first, following = struct.unpack_from("<HHIII", image, offset)
        entry = offset + first
        while True:
            _, _, _, name, after = struct.unpack_from("<IHHII", image, entry)
            struct.pack_into("<I", image, entry, elf_hash(text_at(image, strings + name)))
            if after == 0:
                break
            entry += after
        if following == 0:
            return
        offset += following


def renamed(content, old, new):
    image = bytearray(content.replace(old, new))
    found = sections(image)
    for kind, offset, _, link in found:
        if kind == VERSIONS_DEFINED:
            renew_defined(image, offset, found[link][1])
        if kind == VERSIONS_NEEDED:
            renew_needed(image, offset, found[link][1])
    return image


def main(old, new, folder, *files):
    if len(old) != len(new):
        sys.exit("the two versions differ in length")
    for file in map(Path, files):
        content = file.read_bytes()
        if not content.startswith(b"\x7fELF\x02") or old.encode() not in content:
            continue
        copy = Path(folder) / file.relative_to("/")
        copy.parent.mkdir(parents=True, exist_ok=True)
        copy.write_bytes(renamed(content, old.encode(), new.encode()))
        copy.chmod(file.stat().st_mode)
        print(file)


if __name__ == "__main__":
    main(*sys.argv[1:])
