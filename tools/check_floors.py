#!/usr/bin/env python3
"""Checks that no folder includes from a folder above or beside it. What a folder may include from is
what its zel_floor() names as DEPENDS and USES_CORE, floors that the build has added before it."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Where a folder may include only some of another's headers.
ONLY = {
    ("client", "rpc"): {"rpc/stub_descriptor.h", "rpc/zel_interface.h", "rpc/zel_ndr_format.h"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)
FLOOR = re.compile(r"^zel_floor\((\w+)([^)]*)\)", re.MULTILINE)
KEYWORDS = {"CORE", "WIN32", "DEPENDS", "USES_CORE", "LIBRARIES", "HEADERS"}


def declared_floors():
    """Each floor, lowest first, with the floors that it names."""
    root = (ROOT / "CMakeLists.txt").read_text()
    for folder in re.findall(r"^\s*add_subdirectory\((\w+)\)", root, re.MULTILINE):
        declaration = FLOOR.search((ROOT / folder / "CMakeLists.txt").read_text())
        if not declaration:
            continue
        lower, keyword = set(), None
        for word in re.sub(r"#.*", "", declaration.group(2)).split():
            if word in KEYWORDS:
                keyword = word
            elif keyword in ("DEPENDS", "USES_CORE"):
                lower.add(word)
        yield declaration.group(1), lower


def declaration_faults(floors):
    below = set()
    for floor, lower in floors.items():
        for name in sorted(lower - below):
            yield f"{floor}/CMakeLists.txt depends on {name}, which the build has not added before"
        below.add(floor)


def include_faults(floors):
    for floor, lower in floors.items():
        for path in sorted((ROOT / floor).rglob("*.[ch]*")):
            for name in INCLUDE.findall(path.read_text()):
                target, separator, _ = name.partition("/")
                if separator and target != floor and target not in lower:
                    yield f"{path.relative_to(ROOT)} includes {name}: {floor}/ does not depend on {target}/"
                elif name not in ONLY.get((floor, target), {name}):
                    yield f"{path.relative_to(ROOT)} includes {name}, which is not for {floor}/"


def main():
    floors = dict(declared_floors())
    faults = [*declaration_faults(floors), *include_faults(floors)]
    if not floors:
        faults.append("no floor is declared")
    print("\n".join(faults) if faults else f"floors: {len(floors)} in order")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
