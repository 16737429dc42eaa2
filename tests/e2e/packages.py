"""What tools/package.sh has made, and a later version of it."""

import os
import pathlib
import re
import struct
import subprocess
import zipfile

import pytest

from wine import ROOT

FOLDER = pathlib.Path(os.environ.get("ZEL_PACKAGE", ROOT / "build" / "package"))
FIXED_VERSION = struct.pack("<II", 0xFEEF04BD, 0x00010000)


class Packages:
    def __init__(self):
        sums = FOLDER / "SHA256SUMS"
        if not sums.exists():
            pytest.fail("there are no packages: run tools/package.sh")
        name, = re.findall(r"  (zelservice-[0-9.]+)\.msi$", sums.read_text(), re.MULTILINE)
        self.name = name
        self.version = name.removeprefix("zelservice-")
        self.release = FOLDER / f"{name}.zip"
        self.symbols = FOLDER / f"{name}-symbols.zip"
        self.installer = FOLDER / f"{name}.msi"

    def member(self, path, package=None):
        """The bytes of a file of the release."""
        with zipfile.ZipFile(package or self.release) as archive:
            return archive.read(f"{self.name}/{path}")


def later_program(program):
    """The same program with a version higher by one in its third number."""
    at = program.index(FIXED_VERSION) + 8  # the file's version; the product's follows
    changed = bytearray(program)
    for offset in (at, at + 8):
        high, low = struct.unpack_from("<II", changed, offset)
        struct.pack_into("<II", changed, offset, high, low + 0x10000)
    return bytes(changed)


def make_later_installer(packages, folder):
    """Makes, in `folder`, the installer of later programs; returns their bytes by name."""
    programs = {name: later_program(packages.member(f"bin/{name}"))
                for name in ("zelservice.exe", "zelctl.exe")}
    for name, content in programs.items():
        (folder / name).write_bytes(content)
    (folder / "plexor.conf").write_text("# of the later version\r\n")
    subprocess.run([ROOT / "package" / "make_installer.py", folder / "later.msi", folder,
                    folder / "plexor.conf", "1800000000"], check=True)
    return programs


def read_table(installer, table):
    """A table's rows as {column: text}."""
    exported = subprocess.run(["msiinfo", "export", installer, table], check=True,
                              stdout=subprocess.PIPE, text=True).stdout
    columns, _, _, *rows = [line.split("\t") for line in exported.replace("\r", "").splitlines()]
    return [dict(zip(columns, row)) for row in rows]
