"""The oracle of the kill loops: what is right passes, and each planted violation is seen.

    /usr/bin/python3 -m pytest tests/crash"""

import pathlib
import struct
import sys

import pytest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "e2e")]

from bitmap_bytes import bitmap_bytes
from model import LOST, SIZE, WRITE, Bitmap, Effect, File, Report, Shape, State, read_state
from oracle import judge_always, judge_list, judge_settled, judge_stopped

VOLUME = "01234567-89ab-cdef-0123-456789abcdef"
SHAPE = Shape.of(20 * 4096, 4096)


def bits(*blocks):
    return sum(1 << block for block in blocks)


def a_bitmap(*reports):
    bitmap = Bitmap("x", SHAPE)
    for report in reports:
        bitmap.report(report)
    return bitmap


def state(*blocks, closed=True, size_changed=False, unreliable=False):
    return State(SHAPE, closed, Effect(bits(*blocks), size_changed, unreliable))


# The model

@pytest.mark.parametrize("at, length, blocks", [
    (0, 1, [0]), (4095, 2, [0, 1]), (4096, 4096, [1]), (0, 3 * 4096, [0, 1, 2]), (5, 0, [0]),
    (4096, 0, []), (19 * 4096, 4096, [19])])
def test_write_is_the_blocks_that_it_touches(at, length, blocks):
    assert SHAPE.effect(Report(WRITE, at, length)) == Effect(bits(*blocks))


def test_write_behind_the_end_is_a_changed_size():
    assert SHAPE.bits == 24
    assert SHAPE.effect(Report(WRITE, 23 * 4096, 4097)) == Effect(bits(23), size_changed=True)
    assert SHAPE.effect(Report(WRITE, 99 * 4096, 1)) == Effect(0, size_changed=True)


def test_size_is_a_mark_and_what_is_cut_off():
    assert SHAPE.effect(Report(SIZE, 20 * 4096)) == Effect()
    assert SHAPE.effect(Report(SIZE, 21 * 4096)) == Effect(size_changed=True)
    assert SHAPE.effect(Report(SIZE, 18 * 4096 + 1)) == Effect(bits(18, 19, 20, 21, 22, 23), True)


def test_new_bitmap_may_have_what_is_under_way_and_must_have_what_follows():
    file = File(VOLUME, 7, "C:\\a", 20 * 4096)
    file.report(Report(WRITE, 0, 1))
    file.settle()
    file.report(Report(WRITE, 4096, 1))
    bitmap = file.add(Bitmap("x", SHAPE))
    file.report(Report(WRITE, 2 * 4096, 1))
    assert bitmap.certain == Effect(bits(2))
    assert bitmap.possible == Effect(bits(1, 2))


def test_state_is_read_from_the_bytes_of_a_bitmap_file():
    data = bitmap_bytes(volume=VOLUME, file_id=7, file_size=20 * 4096, block_size=4096, changed=[1, 9],
                        closed=0, size_changed=1)
    assert read_state(data) == state(1, 9, closed=False, size_changed=True)
    assert read_state(data, has_mark_beside=True).effect.unreliable
    assert read_state(data[:-1]) is None
    assert read_state(data[:511]) is None
    assert read_state(struct.pack("<I", 0) + data[4:]) is None
    assert read_state(b"") is None


# What is right

@pytest.mark.parametrize("dead, now", [
    (state(), state(3)),                                          # unloaded all the time
    (state(), state(3, closed=False)),                            # loaded by this start
    (state(3, closed=False), state(3, closed=False)),             # left behind, not loaded since
    (state(closed=False), state(closed=False, unreliable=True)),  # left behind, and says so
    (state(unreliable=True), state(unreliable=True)),
    (None, state(3))])
def test_what_is_right_passes(dead, now):
    assert judge_settled(a_bitmap(Report(WRITE, 3 * 4096, 1)), dead, now) is None


def test_deleted_bitmap_may_be_gone_or_damaged():
    bitmap = a_bitmap()
    bitmap.wanted = False
    assert judge_settled(bitmap, None, None) is None


# Each of these is a violation

def test_lost_block_is_seen():
    bitmap = a_bitmap(Report(WRITE, 3 * 4096, 2 * 4096))
    assert judge_settled(bitmap, state(), state(3)) == "x looks clean and lacks blocks 4"
    assert judge_settled(bitmap, state(), state(3, closed=False)) == "x looks clean and lacks blocks 4"
    assert judge_stopped(bitmap, state(3), state(3)).endswith("lacks blocks 4")


def test_lost_size_is_seen():
    bitmap = a_bitmap(Report(SIZE, 99 * 4096))
    assert judge_settled(bitmap, state(), state()) == "x looks clean and lacks the changed size"


def test_lost_mark_is_seen():
    bitmap = a_bitmap(Report(LOST))
    assert judge_settled(bitmap, state(), state()) == "x looks clean and lacks the mark of lost changes"
    assert judge_settled(bitmap, state(), state(unreliable=True)) is None


def test_deleted_bitmap_that_comes_back_clean_and_incomplete_is_seen():
    bitmap = a_bitmap(Report(WRITE, 0, 1))
    bitmap.wanted = False
    assert judge_settled(bitmap, state(), state()) == "x looks clean and lacks blocks 0"


def test_bit_that_nobody_reported_is_seen():
    bitmap = a_bitmap(Report(WRITE, 0, 1))
    for now in state(0, 5), state(0, 5, unreliable=True), state(0, 5, closed=False):
        assert judge_always(bitmap, now) == "x has blocks 5 that nobody reported"


def test_size_that_nobody_reported_is_seen():
    assert judge_always(a_bitmap(), state(size_changed=True)) is not None


def test_bitmap_that_is_trusted_again_is_seen():
    bitmap = a_bitmap()
    bitmap.was_unreliable = True
    assert judge_always(bitmap, state()) == "x was unreliable and is no more"


def test_left_behind_and_clean_is_seen():
    assert "left behind" in judge_settled(a_bitmap(), state(closed=False), state())


def test_damage_is_seen():
    assert judge_always(a_bitmap(), None) == "x is damaged"


def test_distrust_without_a_reason_is_seen():
    assert "without a reason" in judge_settled(a_bitmap(), state(), state(unreliable=True))
    held = a_bitmap()
    held.may_be_distrusted()
    assert judge_settled(held, state(), state(unreliable=True)) is None


def test_stop_that_leaves_distrust_or_an_open_bitmap_is_seen():
    assert "unreliable after" in judge_stopped(a_bitmap(), state(closed=False), state(unreliable=True))
    assert "not closed" in judge_stopped(a_bitmap(), state(closed=False), state(closed=False))
    left_behind = a_bitmap()
    left_behind.left_behind = True
    assert judge_stopped(left_behind, state(closed=False), state(closed=False)) is None


def test_list_is_the_models():
    file = File(VOLUME, 7, "C:\\a", 4096)
    cut_off = File(VOLUME, 8, "C:\\b", 4096, tracked=None)
    a, b = {"C:\\a": (VOLUME, 7)}, {"C:\\b": (VOLUME, 8)}
    assert judge_list([file, cut_off], a) is None
    assert judge_list([file, cut_off], a | b) is None
    assert judge_list([file, cut_off], b) == "C:\\a is not tracked any more"
    assert "should not be" in judge_list([file], a | b)
    assert "and not as" in judge_list([file], {"C:\\a": (VOLUME, 9)})
