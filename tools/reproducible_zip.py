#!/usr/bin/env python3
"""Writes a zip that depends on nothing but the names and the bytes of its files and one time.

    tools/reproducible_zip.py OUT.zip ROOT EPOCH PATH...

Every PATH, a file or a folder taken whole, goes below ROOT under its own last name. In the zip the
names are sorted, the time is EPOCH (seconds since 1970, UTC), and the rights are 0755 for programs
(.exe, .dll, .sh, .py) and 0644 for everything else, whatever they are on disk.
"""

import pathlib
import sys
import time
import zipfile

PROGRAMS = {".exe", ".dll", ".sh", ".py"}
FIRST_ZIP_TIME = 315532800  # 1980-01-01, the earliest that the format knows
UNIX = 3
REGULAR_FILE = 0o100000


def write_zip(out, entries, epoch):
    """Writes `entries`, {name in the zip: path of a file}, to `out`; an existing one is replaced.

    Names are relative, with forward slashes. Raises ValueError for any other, and OSError for what
    cannot be read or written; `out` is then absent or not whole.
    """
    for name in entries:
        parts = name.split("/")
        if "\\" in name or ":" in name or not all(parts) or {".", ".."} & set(parts):
            raise ValueError(f"not a relative name with forward slashes: {name!r}")
    moment = time.gmtime(max(int(epoch), FIRST_ZIP_TIME))[:6]
    with zipfile.ZipFile(out, "w") as archive:
        for name in sorted(entries):
            member = zipfile.ZipInfo(name, moment)
            member.create_system = UNIX
            rights = 0o755 if pathlib.PurePosixPath(name).suffix in PROGRAMS else 0o644
            member.external_attr = (REGULAR_FILE | rights) << 16
            archive.writestr(member, pathlib.Path(entries[name]).read_bytes(),
                             zipfile.ZIP_DEFLATED, compresslevel=9)


def entries_below(root, paths):
    """{name in the zip: path} for files and whole folders, each below `root` under its own name."""
    entries = {}
    for path in map(pathlib.Path, paths):
        files = [file for file in path.rglob("*") if file.is_file()] if path.is_dir() else [path]
        for file in files:
            name = f"{root}/{file.relative_to(path.parent).as_posix()}"
            if name in entries:
                raise ValueError(f"two files for {name}: {entries[name]} and {file}")
            entries[name] = file
    return entries


def main(arguments):
    if len(arguments) < 4:
        sys.exit(__doc__.strip())
    out, root, epoch, *paths = arguments
    write_zip(out, entries_below(root, paths), int(epoch))


if __name__ == "__main__":
    main(sys.argv[1:])
