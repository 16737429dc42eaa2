"""The administrator's tool as a person sees it: on a terminal, which Wine's console draws on."""

import functools
import random
import re

import pytest

from bitmap_bytes import bitmap_bytes
from zelctl import NOBODY_THERE, Zelctl
from zelctl_bench import FILE

VOLUME = "00000000-0000-0000-0000-000000000043"  # Wine's drive C
BLOCK = 4096
BLOCKS = 4096


@pytest.fixture
def zelctl(wine):
    folder = wine.path("C:\\console")
    folder.mkdir(exist_ok=True)
    content = random.Random(1).randbytes(BLOCK * BLOCKS)
    (folder / "source").write_bytes(content)
    zelctl = Zelctl(wine)
    zelctl.json("apply", "--full", "--replace", "--from", "C:\\console\\source",
                "--to", "C:\\console\\copy")
    (folder / "bitmap").write_bytes(bitmap_bytes(
        volume=VOLUME, file_id=(folder / "source").stat().st_ino, block_size=BLOCK,
        file_size=len(content), changed=range(BLOCKS)))
    return zelctl


def lines_of(drawn):
    """The lines without what moves and colours them."""
    return re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", drawn).replace("\r", "").split("\n")


@pytest.mark.parametrize("columns, lines", [(80, 25), (120, 50)])
def test_map_fills_the_terminal_with_shades(zelctl, columns, lines):
    code, drawn = zelctl.on_terminal(columns, lines, "show", "C:\\console\\bitmap", "--map")
    assert code == 0
    shown = lines_of(drawn)
    assert shown[0] == "   0.0 MiB  " + "█" * (columns - 13)
    assert min(lines - 5, BLOCKS // (columns - 13)) <= len(shown) <= lines
    assert "changed 16.0 MiB of 16.0 MiB (100.0 %)" in drawn


def test_progress_is_drawn_and_cleared_and_the_result_is_told(zelctl):
    code, drawn = zelctl.on_terminal(
        100, 25, "apply", "--bitmap", "C:\\console\\bitmap", "--from", "C:\\console\\source",
        "--to", "C:\\console\\copy", "--verify")
    assert code == 0
    assert re.search(r"copying +\d+\.\d %  .* of 16\.0 MiB", drawn)
    assert re.search(r"comparing +\d+\.\d %", drawn)
    result = [line for line in lines_of(drawn) if line]
    assert result[-1] == "compared: both files are equal"
    assert "incremental: read 16.0 MiB of 16.0 MiB (100.0 %); the copy is as of 20" in drawn
    assert "4096 of 4096 blocks" in drawn


def test_person_is_asked_before_bitmaps_go_with_their_file(bench):
    bench.track()
    on_terminal = functools.partial(bench.zelctl.on_terminal, 200, 25, "untrack", FILE,
                                    asked="Stop tracking it?")
    for no in ("n", "", "yet"):
        code, drawn = on_terminal(typed=no)
        assert code == 1 and "This deletes 1 bitmap" in drawn and "is still tracked" in drawn
        assert bench.zelctl.json("status")["bitmaps"] == 1
    code, drawn = on_terminal(typed="y")
    assert code == 0 and "is not tracked any more; deleted with it: 1 bitmap" in drawn
    assert bench.zelctl.json("files")["files"] == []


def test_person_is_told_what_a_script_sees_from_the_exit_code(zelctl, no_service):
    code, drawn = zelctl.on_terminal(120, 25, "ping")
    assert code == 3
    assert any(f"zelctl: {name} ({code}): no answer from the service" in drawn
               for code, name in NOBODY_THERE.items())
