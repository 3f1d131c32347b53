# SPDX-License-Identifier: LGPL-3.0-or-later
"""The operations that are measured, as commands of smbclient.

A team's folder of the tree has the folders "list", with the entries, "empty" and "put"."""

# In this order: "put" makes the files that "get" reads, "rename" renames and "delete" removes.
OPERATIONS = ["list", "list-again", "put", "get", "rename", "delete"]
LISTINGS = {"list": 1, "list-again": 2}  # of the whole folder


def enter(operation, team):
    """Comes before all others of a connection, which is warm then."""
    return [f'cd "Shared\\{team}\\{"list" if operation in LISTINGS else "put"}"']


def commands(operation, numbers):
    """The operation for the file of each number; a listing has no use for numbers."""
    if operation in LISTINGS:
        return ["ls"] * LISTINGS[operation]
    pattern = {"put": "put /scratch/data.txt f{0}", "get": "get f{0} /dev/null",
               "rename": "rename f{0} g{0}", "delete": "rm g{0}"}[operation]
    return [pattern.format(number) for number in numbers]


def list_nothing(team):
    """A listing without an entry."""
    return [f'ls "\\Shared\\{team}\\empty\\*"']
