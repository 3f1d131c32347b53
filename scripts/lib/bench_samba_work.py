# SPDX-License-Identifier: LGPL-3.0-or-later
"""The operations that are measured, as commands of smbclient."""

# "put" makes the files that "get" reads, "rename" renames and "delete" removes.
OPERATIONS = ["list", "list-again", "put", "get", "rename", "delete"]
ENTRIES = {"list": 1, "list-again": 2}  # listings of the whole folder


def folder_of(operation, team):
    return f"Shared\\{team}\\{'list' if operation in ENTRIES else 'put'}"


def enter(operation, team):
    """Must be said first: it also makes the connection warm."""
    return [f'cd "{folder_of(operation, team)}"']


def commands(operation, count):
    """COUNT times the operation; a listing lists the folder once, whatever the count."""
    numbers = range(1, count + 1)
    return {"list": lambda: ["ls"],
            "list-again": lambda: ["ls", "ls"],
            "put": lambda: [f"put /scratch/data.txt f{n}" for n in numbers],
            "get": lambda: [f"get f{n} /dev/null" for n in numbers],
            "rename": lambda: [f"rename f{n} g{n}" for n in numbers],
            "delete": lambda: [f"rm g{n}" for n in numbers]}[operation]()
