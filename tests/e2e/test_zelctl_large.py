"""A bitmap of 512 MiB through zelctl: what it takes of memory, and what ends it in the middle."""

import pathlib
import subprocess
import uuid

import pytest

from agent import DRIVE_C_VOLUME
from wine import wait_until
from zelctl_bench import FILE

LARGEST = (1 << 32) - 1  # blocks of one byte: as many as the service counts
BITMAP_BYTES = 512 + (1 << 29)
OUTPUT = "C:\\data\\large.bitmap"
MEMORY_KIB = 16 << 10


@pytest.fixture
def large_bitmap(bench):
    with bench.agent.client() as client:
        code, info = client.start_tracking2(FILE, uuid.UUID(DRIVE_C_VOLUME),
                                            bench.source.stat().st_ino, LARGEST, 1)
    assert (code, info.file_size) == (0, BITMAP_BYTES)
    yield hex(info.bitmap_id)
    bench.zelctl.json("untrack", FILE)


class Export:
    """A run of zelctl export, which writes beside its output until it has everything."""

    def __init__(self, bench, bitmap_id, *more):
        self.output = bench.agent.wine.path(OUTPUT)
        for left in self.files():
            left.unlink()
        self.process = bench.zelctl.start("export", bitmap_id, "-o", OUTPUT, "--no-sync", *more)
        # Not what runs it, which begins otherwise.
        self.program, = wait_until(
            lambda: bench.agent.wine.processes(bench.zelctl.program), "zelctl runs")

    def files(self):
        return list(self.output.parent.glob(self.output.name + "*"))

    def written(self):
        return max((path.stat().st_size for path in self.files()), default=0)

    def has_ended(self):
        try:
            self.process.wait(0.05)
        except subprocess.TimeoutExpired:
            return False
        return True

    def peak_kib(self):
        """The most memory that the program has had in use so far; None when it has ended."""
        try:
            status = pathlib.Path(f"/proc/{self.program}/status").read_text()
        except OSError:
            return None
        fields = dict(line.split(":", 1) for line in status.splitlines())
        return int(fields["VmHWM"].split()[0]) if "VmHWM" in fields else None


def test_copy_of_any_size_takes_the_memory_of_a_small_one(bench, large_bitmap):
    export = Export(bench, large_bitmap)
    wait_until(export.written, "the copy begins")
    peaks = [export.peak_kib()]
    while not export.has_ended():
        peaks.append(export.peak_kib() or peaks[-1])
    assert export.process.returncode == 0
    assert export.files() == [export.output] and export.written() == BITMAP_BYTES
    assert len(peaks) > 10 and peaks[-1] - peaks[0] <= MEMORY_KIB, (peaks[0], peaks[-1])
    export.output.unlink()


def test_service_that_dies_in_the_middle_leaves_no_copy(bench, large_bitmap):
    export = Export(bench, large_bitmap)
    wait_until(lambda: export.written() > 1 << 20, "the copy is under way")
    bench.agent.kill()
    assert export.process.wait(60) == 3
    assert export.files() == []
    bench.agent.start()


def test_copy_that_takes_too_long_leaves_none(bench, large_bitmap):
    export = Export(bench, large_bitmap, "--timeout", "1")
    assert export.process.wait(60) == 3
    assert export.files() == []
    bench.zelctl.json("ping")
