#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Compares a plain share with the module: torture_table.py RESULTS DIFFERENCES

DIFFERENCES has a line "test: reason" for each test that passes on the plain share and fails with the module.
Fails when any other test differs, or when no test passes."""
import re
import sys
from pathlib import Path

OUTCOME = re.compile(r"^(success|failure|error|skip): (.+?)( \[)?$", re.M)


def outcomes(folder, variant):
    """Returns a dictionary from test to outcome, over all suites of a variant."""
    tests = {}
    for log in sorted(folder.glob(f"{variant}.*")):
        for word, test, _ in OUTCOME.findall(log.read_text(errors="replace")):
            tests[test] = word
    return tests


def known(path):
    lines = [line for line in Path(path).read_text().splitlines() if line and line[0] != "#"]
    return {line.partition(": ")[0]: line.partition(": ")[2] for line in lines}


def main():
    folder, reasons = Path(sys.argv[1]), known(sys.argv[2])
    plain, module = outcomes(folder, "plain"), outcomes(folder, "module")
    passed = {test for test, word in plain.items() if word == "success"}
    differ = {test: module.get(test, "no end") for test in passed if module.get(test) != "success"}
    print(f"{len(plain)} tests; {len(passed)} pass on a plain share, "
          f"{len(passed) - len(differ)} of them with the module")
    for test, word in sorted(differ.items()):
        print(f"  {test}: {word}: {reasons.get(test, 'NOT KNOWN')}")
    for test in sorted(set(reasons) & passed - set(differ)):
        print(f"  {test}: listed, and passes")
    return 1 if not passed or set(differ) - set(reasons) else 0


if __name__ == "__main__":
    sys.exit(main())
