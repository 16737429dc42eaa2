#!/usr/bin/env python3
"""Reads the pictures of EncodePngTest with a reader that shares no code with their writer.

    png_test.py UNIT_TESTS
"""

import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import zlib


def chunks(png):
    assert png[:8] == b"\x89PNG\r\n\x1a\n"
    at = 8
    while at < len(png):
        length, kind = struct.unpack_from(">I4s", png, at)
        data = png[at + 8:at + 8 + length]
        (crc,) = struct.unpack_from(">I", png, at + 8 + length)
        assert crc == zlib.crc32(kind + data), kind
        yield kind, data
        at += 12 + length


def check(png, width, height):
    parts = list(chunks(png))
    assert [kind for kind, _ in parts] == [b"IHDR", b"PLTE", b"IDAT", b"IEND"]
    header, palette, data, end = (part for _, part in parts)
    assert header == struct.pack(">IIBBBBB", width, height, 4, 3, 0, 0, 0)
    assert palette == b"".join(bytes((i, 100 + i, 255 - i)) for i in range(16))
    assert end == b""
    reader = zlib.decompressobj()
    lines = reader.decompress(data)
    assert reader.eof and not reader.unused_data
    stride = 1 + (width + 1) // 2
    assert len(lines) == stride * height
    for y in range(height):
        line = lines[y * stride:(y + 1) * stride]
        assert line[0] == 0, "no filter"
        pixels = [half for byte in line[1:] for half in (byte >> 4, byte & 15)][:width]
        assert pixels == [(y * width + x) * 7 % 16 for x in range(width)]


def main():
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([sys.argv[1], "--gtest_filter=EncodePngTest.*"], check=True,
                       env=dict(os.environ, ZEL_PNG_FOLDER=folder), stdout=subprocess.DEVNULL)
        sizes = [(1, 1), (2, 3), (7, 5), (640, 300)]
        for number, (width, height) in enumerate(sizes):
            check((pathlib.Path(folder) / f"{number}.png").read_bytes(), width, height)


if __name__ == "__main__":
    main()
