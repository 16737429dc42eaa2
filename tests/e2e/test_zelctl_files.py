"""The administrator's tool on bitmap files: what works without the service."""

import os
import random
import re
import shutil

import pytest

from bitmap_bytes import bitmap_bytes
from wine import BIN
from zelctl import NOBODY_THERE, Zelctl
from zelctl_shapes import ERROR, SHAPES, Optional

VOLUME = "00000000-0000-0000-0000-000000000043"  # Wine's drive C
BLOCK = 4096


class Backup:
    """A tracked file, its copy and a bitmap, in a folder with a name that is not ASCII."""

    def __init__(self, wine):
        self.folder = "C:\\zelctl Größe 😀"
        self.path = wine.path(self.folder)
        shutil.rmtree(self.path, ignore_errors=True)
        self.path.mkdir()

    def windows(self, name):
        return self.folder + "\\" + name

    def file(self, name):
        return self.path / name

    def write_bitmap(self, changed, **fields):
        source = self.file("source")
        fields = {"volume": VOLUME, "file_id": source.stat().st_ino, "block_size": BLOCK,
                  "file_size": source.stat().st_size} | fields
        self.file("bitmap").write_bytes(bitmap_bytes(changed=changed, **fields))

    def apply(self, *more):
        return ("apply", "--bitmap", self.windows("bitmap"), "--from", self.windows("source"),
                "--to", self.windows("copy"), *more)

    def is_equal(self):
        return self.file("source").read_bytes() == self.file("copy").read_bytes()

    def names(self):
        """Without what zelctl knows of the copies."""
        return sorted(entry.name for entry in self.path.iterdir() if entry.name != ".zelctl")


@pytest.fixture
def zelctl(wine):
    return Zelctl(wine)


@pytest.fixture
def backup(wine, zelctl):
    made = Backup(wine)
    made.file("source").write_bytes(random.Random(1).randbytes(100 * BLOCK + 5))
    zelctl.json("apply", "--full", "--from", made.windows("source"), "--to", made.windows("copy"))
    return made


def change(backup, blocks, seed):
    """Writes these blocks of the source and answers its old bytes."""
    old = backup.file("source").read_bytes()
    with open(backup.file("source"), "r+b") as source:
        for block in blocks:
            source.seek(block * BLOCK)
            source.write(random.Random(seed + block).randbytes(min(BLOCK, len(old) - block * BLOCK)))
    return old


def test_without_a_service_every_question_ends_with_three(zelctl, no_service):
    for question in (("ping",), ("status",), ("files",), ("bitmaps",), ("track", "C:\\x"),
                     ("untrack", "C:\\x"), ("sync",), ("export", "1", "-o", "C:\\x"),
                     ("delete", "1"), ("show", "0x1")):
        error = zelctl.json(*question, exit_code=3)["error"]
        assert error["name"] == NOBODY_THERE[error["code"]]
        assert "check" in error["message"]
    output, errors = zelctl.run("ping", exit_code=3)
    assert output == ""
    assert errors.startswith(tuple(f"zelctl: {name} ({code}): " for code, name in NOBODY_THERE.items()))
    error = zelctl.json("ping", "--server", "127.0.0.1", "--endpoint", "1", exit_code=3)["error"]
    assert error["name"] == "RPC_S_SERVER_UNAVAILABLE"


def test_program_tells_its_version_and_carries_it(zelctl):
    version = zelctl.json("--version")["version"]
    program = (BIN / "zelctl.exe").read_bytes()
    for field, value in (("ProductVersion", version), ("OriginalFilename", "zelctl.exe")):
        entry = (field + "\0").encode("utf-16-le") + b"(?:\0\0)?" + (value + "\0").encode("utf-16-le")
        assert re.search(entry.replace(b".", b"\\."), program, re.DOTALL), field


def test_help_and_completion_are_texts(zelctl):
    for words in (("help",), ("help", "apply"), ("completion", "bash"), ("completion", "powershell")):
        assert zelctl.run(*words) == (zelctl.json(*words)["text"], "")


def member_names(shape):
    if isinstance(shape, Optional):
        return member_names(shape.shape)
    if isinstance(shape, list):
        return member_names(shape[0])
    if isinstance(shape, dict):
        return set(shape).union(*map(member_names, shape.values()))
    return set()


def test_help_names_every_member_of_the_answers(zelctl):
    of_all = zelctl.run("help", "json")[0]
    for command, shape in SHAPES.items():
        help_text = of_all if command == "--version" else of_all + zelctl.run("help", command)[0]
        missing = {name for name in member_names(shape) if not re.search(rf"\b{name}\b", help_text)}
        assert not missing, command
    assert all(re.search(rf"\b{name}\b", of_all) for name in ERROR)


def test_wrong_usage_ends_with_two(zelctl):
    for words in ((), ("pong",), ("track",), ("track", "x", "--block-size", "0"),
                  ("ping", "--protseq", "smoke")):
        assert zelctl.json(*words, exit_code=2)["error"]["code"] == 0
        output, errors = zelctl.run(*words, exit_code=2)
        assert output == "" and errors.startswith("zelctl: ")


def test_show_tells_the_header_and_the_ranges(zelctl, backup):
    backup.write_bitmap([0, 1, 99, 100])
    answer = zelctl.json("show", backup.windows("bitmap"), "--ranges")
    assert answer["bitmap"]["volume"] == VOLUME
    assert answer["bitmap"]["creation_time"] == "2026-01-31T14:38:43.4821376Z"
    assert answer["bitmap"]["trust"] == "trusted"
    assert answer["changed"] == {"bytes": 3 * BLOCK + 5, "blocks": 4, "ranges": 2,
                                 "of_bytes": 100 * BLOCK + 5, "of_blocks": 101}
    assert answer["ranges"] == [{"offset": 0, "length": 2 * BLOCK},
                                {"offset": 99 * BLOCK, "length": BLOCK + 5}]
    output, _ = zelctl.run("show", backup.windows("bitmap"), "--ranges")
    assert output == f"0 {2 * BLOCK}\n{99 * BLOCK} {BLOCK + 5}\n"


def test_show_writes_a_map_in_text_and_as_a_picture(zelctl, backup):
    backup.write_bitmap([0, 1, 100])
    output, _ = zelctl.run("show", backup.windows("bitmap"), "--map", "--ascii", "--png",
                           backup.windows("map.png"))
    assert output.startswith("   0.0 KiB  ##....")
    assert backup.file("map.png").read_bytes().startswith(b"\x89PNG\r\n")
    assert backup.names() == ["bitmap", "copy", "map.png", "source"]


def test_apply_copies_what_changed(zelctl, backup):
    blocks = [0, 7, 8, 100]
    change(backup, blocks, seed=10)
    backup.write_bitmap(blocks)
    answer = zelctl.json(*backup.apply("--verify"))
    assert answer["copied_bytes"] == 3 * BLOCK + 5 and answer["copied_ranges"] == 3
    assert answer["verified"] is True and answer["mode"] == "incremental"
    assert backup.is_equal()
    assert backup.names() == ["bitmap", "copy", "source"]
    output, errors = zelctl.run(*backup.apply())
    assert output.startswith("incremental: read 12.0 KiB of 400.0 KiB (3.0 %); the copy is as of 20")
    assert errors == ""


def test_apply_reads_only_changed_blocks_of_the_source(zelctl, backup, tmp_path):
    """Watched from below Wine."""
    blocks = [0, 7, 8, 9, 60]
    change(backup, blocks, seed=10)
    backup.write_bitmap(blocks)
    trace = tmp_path / "trace"
    zelctl.trace(trace, "read,pread64,readv,preadv,preadv2,mmap", *backup.apply())
    of_source = [line for line in trace.read_text().splitlines() if "/source>" in line]
    reads = [re.search(r"pread64\(.*, (\d+), (\d+)\) += (\d+)$", line) for line in of_source]
    assert reads and all(reads), of_source
    read = {byte // BLOCK for length, offset, _ in (found.groups() for found in reads)
            for byte in (int(offset), int(offset) + int(length) - 1)}
    assert read == {0, 7, 9, 60}  # the first and last block of each read
    assert sum(int(found[3]) for found in reads) == len(blocks) * BLOCK
    assert backup.is_equal()


def test_apply_takes_growth_and_truncation_over(zelctl, backup):
    size = backup.file("source").stat().st_size
    with open(backup.file("source"), "ab") as source:
        source.write(bytes(range(256)) * 100)
    backup.write_bitmap([], file_size=size, size_changed=1)
    assert zelctl.json(*backup.apply("--verify"))["copied_bytes"] == 25600
    with open(backup.file("source"), "r+b") as source:
        source.truncate(5000)
    backup.write_bitmap(range(1, 101), file_size=size, size_changed=1)
    assert zelctl.json(*backup.apply("--verify"))["copied_bytes"] == 5000 - BLOCK
    assert backup.is_equal()


def test_apply_refuses_what_it_cannot_trust(zelctl, backup):
    before = backup.file("copy").read_bytes()
    change(backup, [3], seed=10)
    later = 0x01dc92bf4c8a6d00 + (1 << 60)
    for fields, code, reason in (
            ({"unreliable": 1}, 4, "unreliable"), ({"closed": 0}, 1, "in_use"),
            ({"file_id": 1}, 1, "identity"), ({"created": later}, 4, "too_late"),
            ({"volume": "12345678-0000-0000-0000-000000000000"}, 1, "identity")):
        backup.write_bitmap([3], **fields)
        assert zelctl.json(*backup.apply(), exit_code=code)["error"]["reason"] == reason
        assert backup.file("copy").read_bytes() == before
    backup.file("bitmap").write_bytes(b"MZ" * 300)
    message = zelctl.json(*backup.apply(), exit_code=1)["error"]["message"]
    assert "it is no bitmap file" in message
    backup.write_bitmap([3], unreliable=1)
    assert zelctl.json(*backup.apply("--full", "--verify"))["mode"] == "full"
    assert backup.is_equal()
    assert backup.names() == ["bitmap", "copy", "source"]


def test_files_that_cannot_be_opened_are_told_by_name_and_number(zelctl, backup):
    backup.write_bitmap([3])
    backup.file("source").unlink()
    error = zelctl.json(*backup.apply(), exit_code=1)["error"]
    assert error["name"] == "ERROR_FILE_NOT_FOUND" and backup.windows("source") in error["message"]
    backup.file("copy").unlink()
    assert "a full copy is needed" in zelctl.json(*backup.apply(), exit_code=4)["error"]["message"]
    error = zelctl.json("show", "C:\\no such folder\\x", exit_code=1)["error"]
    assert error["name"] == "ERROR_PATH_NOT_FOUND"
    error = zelctl.json("show", backup.windows("bitmap"), "--png", "C:\\no such folder\\x",
                        exit_code=1)["error"]
    assert error["name"] == "ERROR_PATH_NOT_FOUND"


def test_copy_that_another_program_writes_is_left_alone(zelctl, backup):
    """Two runs at once: the second finds the copy in use. Both end, and the copy is whole."""
    blocks = range(0, 101)
    change(backup, blocks, seed=10)
    backup.write_bitmap(blocks)
    runs = [zelctl.start(*backup.apply()) for _ in range(4)]
    codes = [run.wait(60) for run in runs]
    assert set(codes) <= {0, 1} and 0 in codes
    assert zelctl.json(*backup.apply("--verify"))["verified"] is True
    assert backup.names() == ["bitmap", "copy", "source"]


def test_copy_is_known_by_what_it_is(zelctl, backup):
    """Under another name, through a hard link, in another spelling; and another file is not it."""
    backup.write_bitmap([3])
    os.rename(backup.file("copy"), backup.file("renamed"))
    os.link(backup.file("renamed"), backup.file("linked"))
    for name in ("renamed", "linked", "RENAMED", "renamed.", "..\\" + backup.path.name + "\\linked"):
        answer = zelctl.json("apply", "--bitmap", backup.windows("bitmap"), "--from",
                             backup.windows("source"), "--to", backup.windows(name))
        assert answer["copied_bytes"] == BLOCK, name
    backup.file("copy").write_bytes(backup.file("source").read_bytes())
    assert zelctl.json(*backup.apply(), exit_code=4)["error"]["reason"] == "not_a_copy"


def test_copy_that_another_program_changed_is_not_taken(zelctl, backup):
    backup.write_bitmap([3])
    with open(backup.file("copy"), "r+b") as copy:
        copy.seek(50 * BLOCK)
        copy.write(b"x")
    error = zelctl.json(*backup.apply(), exit_code=4)["error"]
    assert error["reason"] == "not_a_copy" and "changed by something else" in error["message"]
    assert zelctl.json(*backup.apply("--full"), exit_code=1)["error"]["reason"] == "not_a_copy"
    zelctl.json(*backup.apply("--full", "--replace"))
    assert backup.is_equal()


def test_nothing_is_overwritten_unasked(zelctl, backup):
    """A backup by a bitmap or a picture, the file by its copy, a file by its name."""
    backup.write_bitmap([3])
    before = backup.file("copy").read_bytes()
    error = zelctl.json("show", backup.windows("bitmap"), "--png", backup.windows("copy"),
                        exit_code=1)["error"]
    assert error["reason"] == "exists"
    for more in (("--full",), ("--full", "--bitmap", backup.windows("bitmap")),
                 ("--full", "--bitmap", backup.windows("bitmap"), "--replace")):
        error = zelctl.json("apply", "--from", backup.windows("copy"), "--to",
                            backup.windows("source"), *more, exit_code=1)["error"]
        assert error["reason"] in ("identity", "not_a_copy")
    backup.file("copy.zelctl-new").write_bytes(b"mine")
    zelctl.json(*backup.apply("--full"))
    assert backup.file("copy").read_bytes() == before
    assert backup.file("copy.zelctl-new").read_bytes() == b"mine"


def test_full_pass_and_another_run_do_not_meet(zelctl, backup):
    """One of them finds the copy taken, or comes after the other."""
    backup.file("source").write_bytes(random.Random(2).randbytes(64 << 20))
    backup.write_bitmap([3])
    full = zelctl.start(*backup.apply("--full"))
    codes = [zelctl.start(*backup.apply()).wait(60) for _ in range(10)]
    assert {full.wait(60), *codes} <= {0, 1}
    if full.wait() == 1:
        zelctl.json(*backup.apply("--full"))
    assert zelctl.json(*backup.apply("--verify"))["verified"] is True


def test_obstacles_are_found_before_anything_is_copied(zelctl, backup):
    """A folder in the copy's place, a copy that cannot be written."""
    backup.file("folder").mkdir()
    for name, code in (("folder", 1), ("no such folder\\copy", 1), ("", 2)):
        target = backup.windows(name) if name else ""
        zelctl.json("apply", "--full", "--from", backup.windows("source"), "--to", target,
                    exit_code=code)
    assert backup.names() == ["copy", "folder", "source"]
    assert not list((backup.path / ".zelctl").glob("*.new"))
