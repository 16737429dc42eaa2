#!/usr/bin/env python3
"""Watches from below Wine what a process does to a bitmap's file: which flushes reach the kernel,
in which order, between which steps of bitmap_probe.

    flush_order_test.py RUNNER BITMAP_PROBE      RUNNER runs a Windows program

Fails where strace cannot run.
"""

import pathlib
import re
import struct
import subprocess
import sys
import tempfile

# What each step of the probe must show. A mark that is new reaches the device before the step
# ends; the bits reach it before the mark of a clean close is made.
EXPECTED = {
    "load": ["msync header", "fsync"],
    "mark": ["msync header", "fsync"],
    "mark again": [],
    "set": [],
    "unload": ["msync all", "fsync", "msync all"],
    "end": [],
}
HEADER = 512
PAGE = 4096
BITS = 10_000  # bytes


def write_bitmap(path):
    header = bytearray(HEADER)
    struct.pack_into("<IHH", header, 0x00, 0x624C455A, HEADER, 22)
    struct.pack_into("<I", header, 0x38, 65536)
    header[0x3C] = 1
    struct.pack_into("<I", header, 0x40, BITS)
    path.write_bytes(header + bytes(BITS))


def steps(trace, name):
    """The flushes of the file `name` by step, from the lines of a trace."""
    seen = {}
    view = None
    for line in trace:
        if said := re.search(r'\bwrite\(\d+<[^>]*>, "([a-z ]+)\\r\\n"', line):
            step = said[1]
            seen[step] = []
        elif name in line and (mapped := re.search(r"\bmmap\(.*MAP_SHARED.* = (0x[0-9a-f]+)$", line)):
            view = mapped[1]
        elif flushed := re.search(r"\bmsync\((0x[0-9a-f]+), (\d+),.* = 0$", line):
            size = {HEADER: "header", -(-(HEADER + BITS) // PAGE) * PAGE: "all"}.get(int(flushed[2]))
            seen[step].append(f"msync {size}" if flushed[1] == view else line)
        elif flushed := re.search(r"\b(fsync|fdatasync)\(.* = 0$", line):
            seen[step].append("fsync" if name in line else line)
    return seen


def main():
    runner, probe = sys.argv[1:]
    with tempfile.TemporaryDirectory() as directory:
        bitmap = pathlib.Path(directory) / "01dc00000000000000010000"
        trace = pathlib.Path(directory) / "trace"
        write_bitmap(bitmap)
        subprocess.run(
            ["strace", "-f", "-y", "-s", "99", "-e", "trace=msync,fsync,fdatasync,mmap,write",
             "-o", trace, runner, probe, "unload", "Z:" + str(bitmap).replace("/", "\\")],
            check=True, timeout=120)
        seen = steps(trace.read_text().splitlines(), bitmap.name)
    if seen != EXPECTED:
        print(f"expected {EXPECTED}\nseen     {seen}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
