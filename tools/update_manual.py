#!/usr/bin/env python3
"""Puts the help texts into docs/zelctl.md, where a test compares them.

    tools/update_manual.py PROGRAM      the tool, and how to run it: tools/wine-run.sh zelctl.exe
"""

import pathlib
import re
import subprocess
import sys

MANUAL = pathlib.Path(__file__).resolve().parent.parent / "docs" / "zelctl.md"


def help_text(*topic):
    run = subprocess.run([*sys.argv[1:], "help", *topic], check=True, stdout=subprocess.PIPE)
    return run.stdout.decode().replace("\r\n", "\n")


def main():
    overview = help_text()
    topics = re.findall(r"^  ([a-z]+) {2,}", overview.split("\nCommands:\n")[1], re.MULTILINE)
    head = MANUAL.read_text().split("## Overview\n")[0]
    parts = [f"## Overview\n\n```text\n{overview}```\n"]
    parts += [f"## {topic}\n\n```text\n{help_text(topic)}```\n" for topic in topics]
    MANUAL.write_text(head + "\n".join(parts))


if __name__ == "__main__":
    main()
