#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""A client that tries only forbidden things, and writes down every name that it learns.

usage: intruder.py USER PASSWORD SEED TRIES TOLD_FILE
TRIES 0 goes on until /scratch/stop is there. The names go into TOLD_FILE, a path of the share a
line; refusals are what it is here for, and a lost connection is made again.
"""
import os
import random
import sys
import time

from impacket import nmb, smb3

import wire
from wire import *

FOLDERS = ["Vault", "Vault/Sub", "Vault/Fixed", "Vault/hidden", "Vault/viewed", "Vault/drop",
           "Team/Secret", "Closed"]
FILES = ["Vault/a.txt", "Vault/Sub/b.txt", "Vault/hidden/hidden1.txt", "Vault/viewed/hidden2.txt",
         "Vault/drop/hidden3.txt", "Team/Secret/hidden.txt", "stray.txt"]
TARGETS = ["Shared/" + name for name in FOLDERS + FILES] + [
    "Private/anna", "Private/anna/diary.txt", "Private/anna/notes"]
WATCHED = ["", "Shared", "Shared/Team", "Shared/Vault", "Private", "Private/anna"]
BITS = [1 << bit for bit in list(range(9)) + [16, 17, 18, 19, 20, 25, 28, 29, 30, 31]]
OPTIONS = [0, FILE_DIRECTORY_FILE, FILE_NON_DIRECTORY_FILE, FILE_DELETE_ON_CLOSE,
           FILE_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE, FILE_OPEN_REPARSE_POINT,
           FILE_OPEN_FOR_BACKUP_INTENT]
CONTROLS = [0x900C4, 0x900A4, 0x900A8, 0x9C040, 0x900C0, 0x144064, 0x140078, 0x1440F2, 0x980C8]
LONG_AGO = 116444736000000000 + 10**16
Trouble = (OSError, EOFError, struct.error, nmb.NetBIOSError, nmb.NetBIOSTimeout, smb3.SessionError)


class Intruder:
    def __init__(self, user, password, seed, told):
        self.user, self.password, self.told = user, password, told
        self.random = random.Random(seed)
        self.client = None
        self.tries = self.opened = 0

    def tell(self, folder, names):
        for name in names:
            folder = folder.removesuffix("/.")
            self.told.write((folder + "/" if folder else "") + name + "\n")

    def name(self):
        """A target, sometimes in other letter case, or a name that does not exist."""
        name = self.random.choice(TARGETS)
        if self.random.random() < 0.2:
            name += f"/new{self.random.randrange(5)}"
        if self.random.random() < 0.15:
            name = self.random.choice([name.upper(), name.lower(), name + ":stream"])
        return name

    def access(self):
        if self.random.random() < 0.3:
            return self.random.choice([MAXIMUM_ALLOWED, GENERIC_ALL, READ, READ | WRITE, DELETE])
        return sum(self.random.sample(BITS, self.random.choice([1, 1, 2, 3])))

    def contexts(self):
        some = [Context(b"ExtA", ea_list([("COLOUR", b"red")])),
                Context(b"AlSi", struct.pack("<Q", 1 << 20)),
                Context(b"MxAc", b""), Context(b"QFid", b""), Context(b"DHnQ", bytes(16))]
        return [self.random.choice(some)] if self.random.random() < 0.2 else None

    def attack(self, handle, name):
        client, chance = self.client, self.random
        attributes = chance.choice([0x1, 0x2, 0x4, 0x20, 0x80, 0x7])
        tries = [
            lambda: client.write(handle, b"broken"),
            lambda: client.resize(handle, chance.choice([0, 3, 100000])),
            lambda: client.allocate(handle, chance.choice([0, 1 << 20])),
            lambda: client.delete(handle),
            lambda: client.rename(handle, self.name(), chance.random() < 0.5),
            lambda: client.link(handle, self.name(), chance.random() < 0.5),
            lambda: client.set_basic(handle, attributes, chance.choice([0, LONG_AGO])),
            lambda: client.set_ea(handle, chance.choice(["COLOUR", "tavrix.fixed_folder"]),
                                  chance.choice([b"", b"red", bytes(200)])),
            lambda: client.zero(handle, 0, 4096),
            lambda: client.set_access_list(handle),
            lambda: client.control(handle, chance.choice(CONTROLS), bytes(16)),
            lambda: client.query(handle, chance.choice([5, 9, 15, 18, 22, 48])),
            lambda: client.read(handle),
            lambda: self.tell(name, client.names(handle, chance.choice(["*", "*.txt", "H*"]))),
        ]
        for attempt in chance.sample(tries, 3):
            try:
                attempt()
            except Refused:
                pass

    def watch(self):
        """Asks for notices while others work, and writes down the names in them."""
        folder = self.random.choice(WATCHED)
        handle = self.client.open(folder, FILE_READ_DATA, options=FILE_DIRECTORY_FILE)
        self.client.watch(handle)
        self.tell(folder, [name for _, name in self.client.told(0.3)])
        self.client.close(handle)

    def leave(self):
        self.client.drop()
        self.client = None

    def once(self):
        if self.client is None:
            self.client = Client(self.user, self.password)
        if self.random.random() < 0.03:
            return self.watch()
        if self.random.random() < 0.01:
            return self.leave()
        name = self.name()
        handle = self.client.open(name, self.access(), self.random.randrange(6),
                                  self.random.choice(OPTIONS),
                                  attributes=self.random.choice([0, 0x80, 0x1, 0x2, 0x10]),
                                  contexts=self.contexts())
        self.opened += 1
        try:
            self.attack(handle, name)
        finally:
            self.client.close(handle)

    def go_on(self, tries):
        while not os.path.exists("/scratch/stop") and (tries == 0 or self.tries < tries):
            self.tries += 1
            try:
                self.once()
            except Refused:
                if self.client is None:
                    time.sleep(0.05)
            except Trouble:
                self.client = None
                time.sleep(0.05)


def main():
    user, password, seed, tries, path = sys.argv[1:]
    with open(path, "a", buffering=1) as told:
        intruder = Intruder(user, password, seed, told)
        intruder.go_on(int(tries))
    print(f"{intruder.tries} tries, {intruder.opened} opened", flush=True)
    os._exit(0)


if __name__ == "__main__":
    main()
