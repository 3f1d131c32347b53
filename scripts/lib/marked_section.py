# SPDX-License-Identifier: LGPL-3.0-or-later
"""Replaces what a document has between two comments, "<!-- NAME -->" and "<!-- end of NAME -->"."""
from pathlib import Path


def replace(document, name, text):
    begin, end = f"<!-- {name} -->", f"<!-- end of {name} -->"
    path = Path(document)
    before, _, rest = path.read_text().partition(begin)
    _, _, after = rest.partition(end)
    path.write_text(f"{before}{begin}\n{text}\n{end}{after}")
