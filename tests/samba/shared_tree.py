# SPDX-License-Identifier: LGPL-3.0-or-later
"""SMB1: two users of one client on one tree connection: shared_tree.py FIRST SECOND PATTERN
Prints the names that each of them sees, one line each: first, second, first again."""
import sys

from impacket import smb

first, second, pattern = sys.argv[1:4]
client = smb.SMB("127.0.0.1", "127.0.0.1")
users = []
for name in (first, second):
    client._uid = 0
    client.login(name, name)
    users.append(client._uid)
assert users[0] != users[1], "one session"
client._uid = users[0]
tree = client.tree_connect_andx("\\\\127.0.0.1\\tavrix", "")
client.tree_connect_andx = lambda *given, **named: tree
client.disconnect_tree = lambda number: None
for user in (users[0], users[1], users[0]):
    client._uid = user
    try:
        names = [entry.get_longname() for entry in client.list_path("tavrix", pattern)]
    except Exception as error:
        names = [type(error).__name__]
    print(" ".join(sorted(n for n in names if n not in (".", ".."))))
