# SPDX-License-Identifier: LGPL-3.0-or-later
"""Validates documents on standard input against the schemas that they name.

validate_json.py FOLDER: FOLDER holds NAME.schema.json for "tavrix.NAME/1". Documents may be indented or
one a line. A key that a schema does not have is an error here, although readers ignore it: otherwise a
schema could lack keys. Prints the names of the schemas, one for each document; prints the errors and
fails if there are any.
"""

import json
import re
import sys
from pathlib import Path

from jsonschema import Draft202012Validator, FormatChecker

formats = FormatChecker()


@formats.checks("date-time")
def is_time(value):
    return not isinstance(value, str) or bool(
        re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?(Z|[+-]\d\d:\d\d)", value))


def forbid_other_keys(schema):
    if isinstance(schema, list):
        for part in schema:
            forbid_other_keys(part)
    if not isinstance(schema, dict):
        return
    if schema.get("type") == "object" and "properties" in schema:
        schema.setdefault("additionalProperties", False)
    for part in schema.values():
        forbid_other_keys(part)


def schema_of(folder, name):
    part = re.fullmatch(r"tavrix\.([a-z-]+)/(\d+)", name)
    if part is None:
        sys.exit(f"{name!r} is not the name of a schema")
    file = folder / f"{part[1]}.schema.json"
    if not file.exists():
        sys.exit(f"there is no {file}")
    schema = json.loads(file.read_text())
    Draft202012Validator.check_schema(schema)
    if schema["properties"]["schema"] != {"const": name}:
        sys.exit(f"{file} is not the schema of {name}")
    forbid_other_keys(schema)
    return schema


def documents(text):
    decoder = json.JSONDecoder()
    at = 0
    while text[at:].strip():
        at += len(text[at:]) - len(text[at:].lstrip())
        document, at = decoder.raw_decode(text, at)
        yield document


def main():
    folder = Path(sys.argv[1])
    for document in documents(sys.stdin.read()):
        if not isinstance(document, dict) or next(iter(document), "") != "schema":
            sys.exit('the first key of a document is "schema"')
        schema = schema_of(folder, document["schema"])
        validator = Draft202012Validator(schema, format_checker=formats)
        for error in validator.iter_errors(document):
            sys.exit(f"{document['schema']}: {error.json_path}: {error.message}")
        print(document["schema"])


main()
