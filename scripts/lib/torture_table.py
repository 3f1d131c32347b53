#!/usr/bin/env python3
"""Compares a plain share with the module: torture_table.py RESULTS DIFFERENCES

DIFFERENCES has a line "suite: reason" for each suite that passes plain and not with the module. Fails
when another one differs."""
import sys
from pathlib import Path


def outcomes(path):
    return dict(line.split() for line in path.read_text().splitlines()) if path.exists() else {}


def known(path):
    lines = [line for line in Path(path).read_text().splitlines() if line and line[0] != "#"]
    return {line.partition(": ")[0]: line.partition(": ")[2] for line in lines}


def main():
    folder, reasons = Path(sys.argv[1]), known(sys.argv[2])
    plain, module = outcomes(folder / "plain"), outcomes(folder / "module")
    # What does not pass without the module proves nothing about it.
    differ = {suite: outcome for suite, outcome in module.items()
              if outcome != "passed" and plain.get(suite) == "passed"}
    passed = sum(1 for outcome in plain.values() if outcome == "passed")
    print(f"{len(plain)} suites; {passed} pass on a plain share, {passed - len(differ)} of them with the module")
    unknown = {suite: outcome for suite, outcome in differ.items() if suite not in reasons}
    for suite, outcome in sorted(differ.items()):
        print(f"  {suite}: {outcome}: {reasons.get(suite, 'NOT KNOWN')}")
    for suite in sorted(set(reasons) & set(module) - set(differ)):
        print(f"  {suite}: listed, and passes")
    trouble = folder / "trouble"
    if trouble.exists() and trouble.read_text():
        print("the server's log:", trouble.read_text())
        return 1
    return 1 if unknown else 0


if __name__ == "__main__":
    sys.exit(main())
