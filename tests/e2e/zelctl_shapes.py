"""What each command's JSON has, member by member, as docs/zelctl.md says it."""

import re


class Text:
    """A text of that pattern."""

    def __init__(self, pattern):
        self.pattern = re.compile(pattern)

    def accepts(self, value):
        return isinstance(value, str) and self.pattern.fullmatch(value) is not None


class Optional:
    """A member that is not always there."""

    def __init__(self, shape):
        self.shape = shape


ID = Text("0x[0-9a-f]{16}")
GUID = Text("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}")
TIME = Text(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{7}Z")
TRUST = Text("trusted|unreliable|in_use|damaged")
NAME = Text("[A-Z]+_[A-Z0-9_]+|[0-9]+|0x[0-9a-f]{8}|")

BITMAP = {"bitmap_id": ID, "path": str, "volume": GUID, "file_id": ID, "block_size": int,
          "creation_time": TIME, "bitmap_file_size": int}
HEADER = {"bitmap_id": ID, "volume": GUID, "file_id": ID, "creation_time": TIME,
          "last_update_time": TIME, "block_size": int, "file_size": int, "bitmap_size": int,
          "size_changed": bool, "version": int, "trust": TRUST}
CHANGED = {"bytes": int, "blocks": int, "ranges": int, "of_bytes": int, "of_blocks": int}
REASON = Text("unreliable|in_use|half_way|too_late|identity|not_a_copy|differs|damaged|busy|exists|")
ERROR = {"exit_code": int, "code": int, "name": NAME, "reason": REASON, "message": str}
PASS = {"mode": Text("incremental|full"), "source": str, "copy": str, "source_size": int,
        "copied_bytes": int, "copied_ranges": int, "verified": bool, "as_of": TIME}
# Besides the command's own.
ALWAYS = {"ok": bool, "notes": Optional([str])}

SHAPES = {
    "ping": {},
    "status": {"tracked_files": int, "bitmaps": int, "driver": bool, "untrusted": Optional(int)},
    "files": {"files": [{"path": str, "volume": GUID, "file_id": ID, "bitmap_ids": [ID]}]},
    "bitmaps": {"bitmaps": [BITMAP | {"bitmap_file": str, "trust": Optional(TRUST),
                                      "changed": Optional(CHANGED)}]},
    "track": BITMAP,
    "untrack": {"path": str, "deleted_bitmaps": int},
    "sync": {"time": TIME, "filetime": int},
    "export": {"bitmap_id": ID, "output": str, "bytes": int, "trust": TRUST,
               "known_until": Optional(TIME)},
    "delete": {"deleted": [ID], "unknown": [ID]},
    "show": {"bitmap": HEADER, "changed": CHANGED,
             "ranges": Optional([{"offset": int, "length": int}]),
             "map": Optional([{"offset": int, "share": float}]), "png": Optional(str),
             "known_until": Optional(TIME)},
    "apply": PASS | {"dry_run": Optional(bool)},
    "backup": PASS | {"bitmap_id": Optional(ID), "next_bitmap_id": ID, "deleted": [ID],
                      "why": Optional(str)},
    "verify": {"source": str, "copy": str},
    "completion": {"text": str},
    "help": {"text": str},
    "--version": {"version": Text(r"\d+\.\d+\.\d+")},
}


def check(value, shape, where="answer"):
    if isinstance(shape, dict):
        assert isinstance(value, dict), where
        needed = {name for name, part in shape.items() if not isinstance(part, Optional)}
        assert needed <= set(value) <= set(shape), f"{where}: {sorted(value)}"
        for name, part in value.items():
            wanted = shape[name]
            check(part, wanted.shape if isinstance(wanted, Optional) else wanted, f"{where}.{name}")
    elif isinstance(shape, list):
        assert isinstance(value, list), where
        for number, part in enumerate(value):
            check(part, shape[0], f"{where}[{number}]")
    elif isinstance(shape, Text):
        assert shape.accepts(value), f"{where}: {value!r}"
    else:
        assert type(value) is shape, f"{where}: {value!r}"


def check_success(command, answer):
    check(answer, ALWAYS | SHAPES[command])


def check_failure(command, answer):
    """The error, and of the command's own members as many as there may be."""
    own = {name: part if isinstance(part, Optional) else Optional(part)
           for name, part in SHAPES.get(command, {}).items()}
    check(answer, ALWAYS | {"error": ERROR, "difference_at": Optional(int)} | own)
