#!/usr/bin/env python3
"""Checks that no folder includes from a folder above or beside it, and that the pure core
(the CORE sources of each folder and the headers they reach) stays free of Windows headers."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# What each folder may include from, besides itself.
ALLOWED = {
    "win32": set(),
    "logging": {"win32"},
    "common": {"win32", "logging"},
    "bitmap": {"win32", "logging", "common"},
    "tracking": {"win32", "logging", "common"},
    "drivercomm": {"win32", "logging", "common", "bitmap", "tracking"},
    "rpc": {"win32", "logging", "common", "bitmap", "tracking", "drivercomm"},
    "service": {"win32", "logging", "common", "bitmap", "tracking", "drivercomm", "rpc"},
    # Beside the floors.
    "client": {"win32", "common", "rpc"},
    "zelctl": {"win32", "logging", "common", "bitmap", "client"},
    "simulator": {"win32", "common"},
}
# Where a folder may include only some of another's headers.
ONLY = {
    ("client", "common"): {"common/types.h"},
    ("client", "rpc"): {"rpc/stub_descriptor.h", "rpc/zel_interface.h", "rpc/zel_ndr_format.h"},
}
SYSTEM_HEADERS = re.compile(r"windows\.h|winsock2\.h|rpc.*\.h|fltuser\.h|winternl\.h|process\.h|share\.h")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def includes(path):
    return [(kind == '"', name) for kind, name in INCLUDE.findall(path.read_text())]


def check_floors():
    for floor, allowed in ALLOWED.items():
        for path in sorted((ROOT / floor).glob("*.[ch]*")):
            for own, name in includes(path):
                target = name.split("/")[0]
                if own and target != floor and target in ALLOWED and target not in allowed:
                    yield f"{path.relative_to(ROOT)} includes {name}: {floor}/ is not above {target}/"
                elif own and name not in ONLY.get((floor, target), {name}):
                    yield f"{path.relative_to(ROOT)} includes {name}, which is not for {floor}/"


def core_sources():
    for cmake in sorted(ROOT.glob("*/CMakeLists.txt")):
        core = re.search(r"^\s*CORE\s(.*?)(?:\bWIN32\b|\bDEPENDS\b|\))", cmake.read_text(), re.S | re.M)
        for name in core.group(1).split() if core else []:
            yield cmake.parent / name


def check_core():
    seen = set()
    todo = list(core_sources())
    while todo:
        path = todo.pop()
        if path in seen or not path.exists():
            continue
        seen.add(path)
        for own, name in includes(path):
            if own:
                todo.append(ROOT / name)
            elif SYSTEM_HEADERS.fullmatch(name):
                yield f"{path.relative_to(ROOT)} is part of the pure core and includes <{name}>"


def main():
    faults = [*check_floors(), *check_core()]
    print("\n".join(faults) if faults else "floors: in order")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
