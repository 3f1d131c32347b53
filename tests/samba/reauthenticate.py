# SPDX-License-Identifier: LGPL-3.0-or-later
"""Logs in as one user, connects to the share, logs in again as another within the same session, and
lists a folder: reauthenticate.py FIRST SECOND PATTERN"""
import sys

from impacket.smb3structs import SMB2_DIALECT_21
from impacket.smbconnection import SMBConnection

first, second, pattern = sys.argv[1:4]
connection = SMBConnection("127.0.0.1", "127.0.0.1", preferredDialect=SMB2_DIALECT_21)
connection.login(first, first)
low = connection.getSMBServer()
tree = low.connect_tree("tavrix")
before = low._Session["SessionID"]
low.login(second, second)
assert low._Session["SessionID"] == before, "another session"


def names():
    try:
        return sorted(e.get_longname() for e in connection.listPath("tavrix", pattern))
    except Exception as error:  # the test checks the answer
        return [str(error)]


# The old tree connection: a new one would be a new connection of the module.
low._Session["TreeConnectTable"]["tavrix"] = {"TreeConnectId": tree, "NumberOfUses": 10,
                                              **low._Session["TreeConnectTable"].get("tavrix", {})}
print(" ".join(n for n in names() if n not in (".", "..")))
