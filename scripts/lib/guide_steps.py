# SPDX-License-Identifier: LGPL-3.0-or-later
"""The commands of a guide in Markdown, and a comparison of their output with what the guide shows.

usage: guide_steps.py steps GUIDE       prints the steps as records of KIND, LINE and TEXT, each ended by a NUL
       guide_steps.py packages GUIDE    prints the names that its commands give to "apt-get install"
       guide_steps.py compare SHOWN SAID    exit 1: the second file is not what the first one shows

The kinds of step are "section" (a heading), "machine" (a comment "machine: NAME"), "block" (the beginning of a
block in the language sh), "command" (one command of it), and "output" (a block in the language output: what the commands of the block before it
print). In an output a line "..." stands for any lines, and "..." within a line for any text."""
import re
import subprocess
import sys
from pathlib import Path


def is_whole_command(text):
    """Bash itself says whether a command goes on in the next line. It only warns of an open here-document."""
    check = subprocess.run(["bash", "-n", "-c", text], capture_output=True)
    return check.returncode == 0 and not check.stderr and not text.rstrip("\n").endswith("\\")


def commands(lines, first_line):
    text, begin = "", first_line
    for number, line in enumerate(lines, first_line):
        if not text:
            begin = number
        text += line + "\n"
        if is_whole_command(text):
            if text.strip():
                yield begin, text.rstrip("\n")
            text = ""
    if text:
        raise SystemExit(f"line {begin}: the command has no end")


def steps(guide):
    language, block, begin = None, [], 0
    for number, line in enumerate(Path(guide).read_text().splitlines(), 1):
        if language is None and line.startswith("```"):
            language, block, begin = line[3:], [], number + 1
        elif line == "```":
            if language == "sh":
                yield "block", begin, ""
                for at, command in commands(block, begin):
                    yield "command", at, command
            elif language == "output":
                yield "output", begin, "\n".join(block)
            language = None
        elif language is not None:
            block.append(line)
        elif heading := re.fullmatch(r"##+ (.*)", line):
            yield "section", number, heading[1]
        elif machine := re.fullmatch(r"<!-- machine: (.*) -->", line):
            yield "machine", number, machine[1]


def packages(guide):
    for kind, _, text in steps(guide):
        if kind == "command" and text.startswith("apt-get install"):
            yield from (word for word in text.split()[2:] if word[0] not in "-./")


def pattern(shown):
    parts = []
    for line in shown.splitlines():
        if line == "...":
            parts.append(r"(?:.*\n)*?")
        else:
            parts.append(".*?".join(re.escape(piece) for piece in line.rstrip().split("...")) + r"[ \t]*\n")
    return re.compile("".join(parts))


def with_sorted_listings(text):
    """Sorts the entries of each listing of a folder: a server sends them in the order of the disk."""
    lines, listing = [], []
    for line in [*text.splitlines(), None]:
        if line is not None and re.match(r"  \S.* [ADHNRS]+ +\d+  ", line):
            listing.append(line)
            continue
        lines += sorted(listing)
        listing = []
        if line is not None:
            lines.append(line)
    return "".join(line + "\n" for line in lines)


def compare(shown, said):
    """Returns 0, or 1 after printing the first line that cannot be found."""
    shown, said = with_sorted_listings(shown), with_sorted_listings(said.replace("\r", ""))
    lines = shown.splitlines()
    if pattern(shown).fullmatch(said):
        return 0
    fitting = 0
    while fitting < len(lines) and pattern("\n".join(lines[: fitting + 1]) + "\n...").fullmatch(said):
        fitting += 1
    missing = lines[fitting] if fitting < len(lines) else "(nothing more)"
    print(f"the guide shows here: {missing}")
    return 1


if __name__ == "__main__":
    mode = sys.argv[1]
    if mode == "steps":
        for step in steps(sys.argv[2]):
            sys.stdout.write("".join(f"{field}\0" for field in step))
    elif mode == "packages":
        print("\n".join(packages(sys.argv[2])))
    else:
        sys.exit(compare(Path(sys.argv[2]).read_text(), Path(sys.argv[3]).read_text()))
