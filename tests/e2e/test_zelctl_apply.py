"""Incremental copies whatever happens: random work over several bitmaps, restarts and crashes of the
service, and runs that are killed. What is read of the source is what the driver saw."""

import os
import random

import pytest

from bitmap_bytes import changed_ranges
from wine import wait_until
from zelctl import Zelctl
from zelctl_bench import BLOCK, COPY, FILE


class Chain:
    """A copy that follows the file by bitmaps of one block size."""

    def __init__(self, bench, block_size):
        self.bench = bench
        self.block_size = block_size
        self.copy = f"C:\\data\\copy {block_size}"
        self.bitmap = None
        self.begin()

    def begin(self):
        """A new bitmap and a full copy."""
        self.replace_bitmap(lambda: self.bench.apply("--full", copy=self.copy))

    def go_on(self):
        """A new bitmap, begun before the last one is used up."""
        self.replace_bitmap(self.bring_up_to_date)

    def replace_bitmap(self, use_up):
        new = self.bench.track(self.block_size)
        use_up()
        if self.bitmap:
            self.bench.zelctl.json("delete", self.bitmap)
        self.bitmap = new

    def bring_up_to_date(self):
        """Every byte that the bitmap calls changed is read once, and no other."""
        ranges = changed_ranges(self.fetched_bitmap(), self.bench.source.stat().st_size)
        changed_bytes = sum(length for _, length in ranges)
        answer, read = self.apply_seen_by_driver()
        assert answer["mode"] == "incremental" and answer["copied_bytes"] == changed_bytes
        assert read == (changed_bytes, ranges)
        assert self.bench.is_equal(self.copy)
        return changed_bytes

    def fetched_bitmap(self):
        self.bench.zelctl.json("sync")
        self.bench.zelctl.json("export", self.bitmap, "-o", self.copy + ".bitmap")
        return self.bench.agent.wine.path(self.copy + ".bitmap").read_bytes()

    def apply_seen_by_driver(self, exit_code=0):
        """The answer, and what was read of the source: (bytes, [(offset, length)...])."""
        self.bench.reads()
        zelctl = Zelctl(self.bench.agent.wine, self.bench.seen_by_driver())
        answer = zelctl.json("apply", "--bitmap", self.bitmap, "--from", FILE, "--to", self.copy,
                             exit_code=exit_code)
        return answer, self.bench.reads()

    def bring_up_to_date_after_a_crash(self):
        """A bitmap that was in use is refused, with nothing read and nothing written; one that was
        not is good. Whether it was."""
        self.bench.zelctl.json("sync")
        trust = self.bench.zelctl.json("show", self.bitmap)["bitmap"]["trust"]
        if trust == "trusted":
            self.bring_up_to_date()
            return False
        before = self.bench.agent.wine.path(self.copy).read_bytes()
        answer, read = self.apply_seen_by_driver(exit_code=4)
        assert "a full copy is needed (--full)" in answer["error"]["message"]
        assert read == (0, [])
        assert self.bench.agent.wine.path(self.copy).read_bytes() == before
        self.begin()
        return True


class Workload:
    """Random rounds: work, what becomes of the service meanwhile, and copies."""

    REACH = 2 << 20  # growth goes behind the bitmaps of smaller files

    def __init__(self, bench, seed):
        self.bench = bench
        self.random = random.Random(seed)
        self.copied_bytes = 0
        self.refused = 0

    def work(self):
        self.bench.work(self.random.randrange(1 << 30), self.REACH)
        while self.bench.source.stat().st_size < BLOCK:  # what cannot be tracked
            self.bench.work(self.random.randrange(1 << 30), self.REACH)

    def quiet(self):
        self.work()

    def restart_behind_it(self):
        self.work()
        self.bench.agent.stop()
        self.bench.agent.start()

    def restart_before_it(self):
        """The service finds its bitmaps closed, and the driver has held what came."""
        self.bench.agent.stop()
        self.work()
        self.bench.agent.start()

    def crash(self):
        self.work()
        self.bench.agent.kill()
        self.bench.agent.start()

    def round(self, event, chains):
        event()
        for chain in chains:
            if event == self.crash:
                self.refused += chain.bring_up_to_date_after_a_crash()
            elif self.random.random() < 0.4:
                chain.go_on()
            else:
                self.copied_bytes += chain.bring_up_to_date()


@pytest.mark.parametrize("seed", [20261, 20262, 20263])
def test_copies_equal_the_file_and_nothing_but_changes_is_read(bench, seed):
    workload = Workload(bench, seed)
    chains = [Chain(bench, block_size) for block_size in ("4K", "5000", "64K")]
    events = [workload.quiet, workload.restart_behind_it, workload.restart_before_it, workload.crash]
    workload.random.shuffle(events)
    for event in events + [workload.quiet]:
        workload.round(event, chains)
    assert workload.copied_bytes > 0 and workload.refused > 0


def kill_apply_at(bench, point, *arguments, written=lambda bench: [bench.copy]):
    """Kills a run of apply as soon as it has written the block at `point`, which must change.
    `written`: the files in which it may come up."""
    expected = read_at(bench.source, point)
    run = bench.zelctl.start("apply", "--from", FILE, "--to", COPY, *arguments)
    wait_until(lambda: run.poll() is not None or any(read_at(path, point) == expected
                                                     for path in written(bench)),
               "the run writes the block", pause_s=0)
    run.kill()
    run.wait(20)


def read_at(path, offset):
    try:
        with open(path, "rb") as file:
            file.seek(offset)
            return file.read(BLOCK)
    except FileNotFoundError:
        return b""


def test_apply_that_is_killed_at_twenty_points_is_completed(bench):
    points = random.Random(20260203)
    bench.source.write_bytes(points.randbytes(1024 * BLOCK))
    bitmap = bench.track()
    bench.apply("--full")
    half_copies = 0
    for number in range(20):
        before = bench.source.read_bytes()
        bench.run_worker("scatter", number)
        after = bench.source.read_bytes()
        changed = [at for at in range(0, len(after), BLOCK)
                   if before[at:at + BLOCK] != after[at:at + BLOCK]]
        next_bitmap = bench.track()

        kill_apply_at(bench, points.choice(changed), "--bitmap", bitmap)
        if not bench.is_equal():
            half_copies += 1
            error = bench.apply("--bitmap", next_bitmap, exit_code=4)["error"]
            assert error["reason"] == "too_late"
        unchanged = set(range(0, len(after), BLOCK)) - set(changed)
        assert all(read_at(bench.copy, at) == after[at:at + BLOCK] for at in unchanged)
        answer = bench.apply("--bitmap", bitmap)
        assert answer["copied_bytes"] == len(changed) * BLOCK
        assert bench.is_equal()
        bench.zelctl.json("delete", bitmap)
        bitmap = next_bitmap
    print(f"\n{half_copies} of 20 runs were killed in the midst of the copy")
    assert half_copies >= 10


def leave_half_way(bench, bitmap):
    """Work of a seed, and a run of apply that was killed in the midst of it."""
    for seed in range(10):
        before = bench.source.read_bytes()
        bench.run_worker("scatter", seed)
        after = bench.source.read_bytes()
        changed = [at for at in range(0, len(after), BLOCK)
                   if before[at:at + BLOCK] != after[at:at + BLOCK]]
        kill_apply_at(bench, changed[len(changed) // 3], "--bitmap", bitmap)
        if not bench.is_equal():
            return
        bench.apply("--bitmap", bitmap)  # it was quicker
    raise AssertionError("no run was killed in the midst of the copy")


def test_half_copy_that_something_else_has_written_is_not_completed(bench):
    bench.source.write_bytes(random.Random(3).randbytes(1024 * BLOCK))
    bitmap = bench.track()
    bench.apply("--full")
    leave_half_way(bench, bitmap)
    left = bench.copy.stat()
    for moved_s in (60, -60):  # a later write, and an older file in its place
        os.utime(bench.copy, ns=(left.st_atime_ns, left.st_mtime_ns + moved_s * 10 ** 9))
        error = bench.apply("--bitmap", bitmap, exit_code=4)["error"]
        assert error["reason"] == "not_a_copy" and "left it half way" in error["message"]
    os.utime(bench.copy, ns=(left.st_atime_ns, left.st_mtime_ns))
    bench.apply("--bitmap", bitmap)
    assert bench.is_equal()


def test_full_copy_of_a_file_with_holes_has_them_too(bench):
    bench.source.write_bytes(b"begin")
    with open(bench.source, "r+b") as source:
        source.truncate(64 << 20)
        source.seek(40 << 20)
        source.write(b"midst")
    bench.apply("--full", "--verify")
    assert bench.is_equal()
    assert bench.copy.stat().st_blocks * 512 < 1 << 20


def test_full_copy_that_is_killed_leaves_the_old_one(bench):
    points = random.Random(7)
    bench.copy.write_bytes(b"the copy before")
    half_copies = 0
    for _ in range(5):
        bench.source.write_bytes(points.randbytes(16 << 20))  # nothing of it is in what was left
        point = points.randrange(0, 12 << 20, BLOCK)
        kill_apply_at(bench, point, "--full", "--replace",
                      written=lambda bench: bench.records.glob("*.new"))
        if bench.copy.read_bytes() == b"the copy before":
            half_copies += 1
        else:  # it was quicker
            assert bench.is_equal()
            bench.copy.write_bytes(b"the copy before")
    assert half_copies > 0
    bench.apply("--full", "--verify", "--replace")
    assert bench.is_equal()
    assert not list(bench.records.glob("*.new")) and not list(bench.records.glob("*.lock"))
    assert sorted(left.name for left in bench.source.parent.glob("copy*")) == ["copy.bin"]
