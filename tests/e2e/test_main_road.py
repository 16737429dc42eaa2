"""A backup's road through the shipped service: track, write, synchronize, copy, delete; with a restart
and with a crash in between. The driver is the simulator; what it reports is what a program really
does, and what must be set is what a comparison of the file's blocks shows."""

import random

import pytest

from bitmap_bytes import CLOSED_CLEANLY, SIZE_CHANGED, UNRELIABLE
from wine import BIN, wait_until
from zel_client import ERROR_FILE_NOT_FOUND, ERROR_NOT_FOUND, read_tracked_files

BLOCK = 4096
SIZE = 512 * BLOCK
FILE = "C:\\data\\tracked file.bin"

HEADER = 512


class Road:
    def __init__(self, agent):
        self.agent = agent
        self.path = agent.wine.path(FILE)
        self.path.parent.mkdir(exist_ok=True)
        self.path.write_bytes(random.Random(1).randbytes(SIZE))
        agent.install()
        self.start()

    def start(self):
        self.agent.start()
        self.client = self.agent.client()

    def stop(self):
        self.client.close()
        self.agent.stop()

    def track(self):
        """Starts tracking; returns the bitmap's id and what the file holds then."""
        code, info = self.client.start_tracking(FILE, BLOCK)
        assert code == 0
        return info.bitmap_id, self.path.read_bytes()

    def run(self, *command):
        """Runs a program where the driver sees what it does."""
        ended = self.agent.wine.run(self.agent.directory + "\\driversim.exe", "run", "--", *command)
        assert ended.returncode == 0, ended.stdout

    def work(self, seed):
        """Lets a program write, append and truncate as it likes."""
        self.run(str(BIN / "simulator" / "file_worker.exe"), "random", str(seed), FILE)

    def synchronize(self):
        assert self.client.synchronize_bitmaps(self.agent.now()) == 0

    def copy(self, bitmap_id):
        code, chunks = self.client.copy_bitmap(bitmap_id)
        assert code == 0
        return b"".join(chunks)


def bitmap_directory(road):
    return road.agent.wine.path(road.agent.directory) / "cbt"


@pytest.fixture
def road(agent):
    road = Road(agent)
    yield road
    road.client.close()  # on Wine the end of listening waits for it


def blocks(content):
    return [content[at:at + BLOCK] for at in range(0, len(content), BLOCK)]


def changed_blocks(before, after):
    """The numbers of the bitmap's blocks that differ, cut or grown ones included."""
    old, new = blocks(before), blocks(after)
    return {number for number in range(len(old)) if number >= len(new) or old[number] != new[number]}


def set_blocks(bitmap):
    bits = bitmap[HEADER:]
    return {number for number in range(len(bits) * 8) if bits[number // 8] >> number % 8 & 1}


def assert_tells_all(bitmap, before, after):
    """Every change is in the bitmap or in its mark of a changed size; no reliable one lacks any."""
    assert bitmap[UNRELIABLE] == 0
    assert changed_blocks(before, after) <= set_blocks(bitmap)
    assert bitmap[SIZE_CHANGED] == 1 or len(before) == len(after)


def test_bitmap_of_a_file_that_nobody_writes_is_empty(road):
    bitmap_id, _ = road.track()
    road.synchronize()
    bitmap = road.copy(bitmap_id)
    assert len(bitmap) == HEADER + SIZE // BLOCK // 8
    assert set_blocks(bitmap) == set()
    assert bitmap[SIZE_CHANGED] == bitmap[UNRELIABLE] == 0


def assert_tells_no_more(bitmap, before, after):
    """The bitmap equals the comparison of the blocks; what lies behind the file's last is nobody's."""
    assert_tells_all(bitmap, before, after)
    assert {number for number in set_blocks(bitmap) if number < len(blocks(before))} == \
        changed_blocks(before, after)


def test_random_work_is_the_comparison_of_the_blocks(road):
    bitmap_id, before = road.track()
    road.work(21)
    road.synchronize()
    assert_tells_no_more(road.copy(bitmap_id), before, road.path.read_bytes())


def test_copy_of_two_files_into_the_tracked_one_is_the_comparison_of_the_blocks(road):
    parts = [random.Random(seed).randbytes(100 * BLOCK + 7) for seed in (2, 3)]
    for name, part in zip("ab", parts):
        road.path.with_name(name).write_bytes(part)
    bitmap_id, before = road.track()
    road.run("cmd", "/c", "copy", "/b", "/y", "C:\\data\\a+C:\\data\\b", FILE)
    road.synchronize()
    after = road.path.read_bytes()
    assert after == parts[0] + parts[1]
    assert_tells_no_more(road.copy(bitmap_id), before, after)


def test_random_work_over_several_backups_and_a_restart(road):
    bitmap_id, before = road.track()
    for seed in range(3):
        road.work(seed)
        road.synchronize()
        assert_tells_all(road.copy(bitmap_id), before, road.path.read_bytes())
        if seed == 1:
            road.stop()
            road.start()
        # The next backup's bitmap begins before the last one's goes.
        next_id, next_before = road.track()
        assert road.client.delete_bitmap(bitmap_id) == 0
        assert road.client.copy_bitmap(bitmap_id)[0] == ERROR_NOT_FOUND
        bitmap_id, before = next_id, next_before


def test_work_while_the_service_is_down_is_held_by_the_driver(road):
    bitmap_id, before = road.track()
    road.stop()
    road.work(7)
    road.start()
    road.synchronize()
    assert_tells_all(road.copy(bitmap_id), before, road.path.read_bytes())


def test_killed_service_finds_its_bitmap_unreliable(road):
    bitmap_id, before = road.track()
    road.work(1)
    road.synchronize()
    road.client.close()
    road.agent.kill()
    road.start()
    bitmap = road.copy(bitmap_id)
    assert bitmap[UNRELIABLE] == 1
    assert changed_blocks(before, road.path.read_bytes()) <= set_blocks(bitmap)  # none is lost even so
    # A new bitmap beside it is good.
    new_id, new_before = road.track()
    road.work(2)
    road.synchronize()
    assert_tells_all(road.copy(new_id), new_before, road.path.read_bytes())


def test_exact_blocks_of_positioned_writes(road):
    """The set of changed blocks equals the model, not one block more."""
    bitmap_id, _ = road.track()
    volume, file_id = road.agent.identity(FILE)
    rng = random.Random(11)
    model = set()
    for _ in range(300):
        offset, length = rng.randrange(SIZE), rng.randrange(1, 3 * BLOCK)
        length = min(length, SIZE - offset)
        assert road.agent.tell_driver(f"write {volume} {file_id} {offset} {length}") == "ok"
        model |= set(range(offset // BLOCK, (offset + length - 1) // BLOCK + 1))
    road.synchronize()
    assert set_blocks(road.copy(bitmap_id)) == model


def test_stopped_tracking_takes_the_bitmaps_and_the_directories(road):
    bitmap_id, _ = road.track()
    code, stream = road.client.get_tracked_files()
    assert code == 0
    (_, _, path, bitmaps), = read_tracked_files(stream)
    assert (path, [bitmap[2] for bitmap in bitmaps]) == (FILE, [bitmap_id])
    assert road.client.stop_tracking(FILE) == 0
    assert road.client.stop_tracking(FILE) == ERROR_FILE_NOT_FOUND
    assert road.client.get_tracked_files() == (0, bytes(4))
    assert road.client.copy_bitmap(bitmap_id)[0] == ERROR_NOT_FOUND
    assert not list(bitmap_directory(road).glob("*/*/*"))
    # A pass of the cleanup follows each change, and one the deletion of the last bitmap: nothing
    # waits for the pass that comes after a minute.
    wait_until(lambda: not list(bitmap_directory(road).glob("*/")), "a pass of the cleanup",
               timeout_s=30)


def test_dropped_changes_make_the_bitmap_unreliable(road):
    bitmap_id, _ = road.track()
    volume, file_id = road.agent.identity(FILE)
    assert road.agent.tell_driver("drop 1") == "ok"
    road.agent.tell_driver(f"write {volume} {file_id} 0 1")
    road.synchronize()
    assert road.copy(bitmap_id)[UNRELIABLE] == 1
