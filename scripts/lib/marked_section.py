# SPDX-License-Identifier: LGPL-3.0-or-later
"""Replaces what a document has between two comments, "NAME" and "end of NAME".

usage: marked_section.py DOCUMENT NAME < TEXT

A comment is "<!-- NAME -->" in Markdown and '.\\" NAME' in a manual page."""
import sys
from pathlib import Path


def comment(path, text):
    return f'.\\" {text}' if path.suffix in (".1", ".5", ".8") else f"<!-- {text} -->"


def replace(document, name, text):
    path = Path(document)
    begin, end = comment(path, name), comment(path, f"end of {name}")
    before, _, rest = path.read_text().partition(begin)
    _, _, after = rest.partition(end)
    path.write_text(f"{before}{begin}\n{text}\n{end}{after}")


if __name__ == "__main__":
    replace(sys.argv[1], sys.argv[2], sys.stdin.read().rstrip("\n"))
