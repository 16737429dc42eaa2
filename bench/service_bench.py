#!/usr/bin/python3
"""The shipped service under the service control manager: the time from its start to the RUNNING
report, with few and with many bitmap files, and the time of a stop that closes many bitmaps."""

import os
import pathlib
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from agent import SERVICE, Agent
from many_bitmaps import ManyBitmaps
from wine import BIN, Wine
from zel_client import read_tracked_files

LOADED = 5_000
KNOWN = 20_000
TRACKED = 5_000  # files that share the known bitmaps


def report(name, measured, reference, limit):
    kept = measured <= reference * limit
    print(f"{name:<44} {measured:12.2f} s        reference {reference:12.2f}  "
          f"ratio {measured / reference:6.2f} (at most {limit:.2f}) {'ok' if kept else 'MISSED'}",
          flush=True)
    return kept


def timed(agent, verb, subject=SERVICE):
    """Seconds that it takes."""
    ended = agent.wine.run(str(BIN / "service_timer.exe"), verb, subject)
    assert ended.returncode == 0, ended.returncode
    return int(ended.stdout) / 1000


def flush_each(directory):
    """What a clean end owes the device for each bitmap, without a service around it. Seconds."""
    begin = time.monotonic()
    for path in directory.iterdir():
        with open(path, "r+b") as bitmap:
            header = bitmap.read(512)
            os.fsync(bitmap.fileno())
            bitmap.seek(0)
            bitmap.write(header)
    return time.monotonic() - begin


def bench_stop(agent):
    """Leaves the service stopped, and one tracked file with its bitmaps."""
    agent.start()
    with agent.client() as client:
        bitmaps = ManyBitmaps(agent, client, "C:\\data\\many.bin")
        bitmaps.load(client, LOADED - 1)
    taken = timed(agent, "stop")
    agent.wait_for_end()
    assert bitmaps.count_clean() == LOADED
    kept = report(f"stop with {LOADED} loaded bitmaps", taken, flush_each(bitmaps.directory), 3)
    return kept, bitmaps


def time_start(agent, name):
    """A start that finds KNOWN bitmaps, against listing them and opening each. Leaves the service
    running."""
    cbt = f"{agent.directory}\\cbt"
    opened = timed(agent, "open", cbt)  # first: whatever it brings into the caches, it brings for both
    taken = timed(agent, "start")
    with agent.client() as client:
        known = [bitmap for *_, bitmaps in read_tracked_files(client.get_tracked_files()[1])
                 for bitmap in bitmaps]
        assert len(known) == KNOWN, len(known)
    return report(name, taken, opened, 0.4)


def bench_start(agent, bitmaps):
    """Leaves the service stopped."""
    bitmaps.clear()
    print(f"start without a bitmap: {timed(agent, 'start'):.2f} s")
    agent.stop()
    bitmaps.lay_out(KNOWN)
    kept = time_start(agent, f"start with {KNOWN} bitmaps of one file")
    agent.stop()
    assert bitmaps.count_clean() == KNOWN
    bitmaps.clear()
    return kept


def bench_start_of_many_files(agent):
    """The same with the bitmaps in a directory for each tracked file."""
    agent.start()
    with agent.client() as client:
        files = [ManyBitmaps(agent, client, f"C:\\data\\many-{number}.bin")
                 for number in range(TRACKED)]
    agent.stop()
    for bitmaps in files:
        bitmaps.lay_out(KNOWN // TRACKED - 1)
    kept = time_start(agent, f"start with {KNOWN} bitmaps of {TRACKED} files")
    agent.stop()
    assert sum(bitmaps.count_clean() for bitmaps in files) == KNOWN
    return kept


def run(agent):
    agent.remove_all()
    agent.lay_out()
    agent.install()
    kept, bitmaps = bench_stop(agent)
    kept = bench_start(agent, bitmaps) and kept
    return bench_start_of_many_files(agent) and kept


def main():
    wine = Wine("bench")
    wine.start()
    agent = Agent(wine, "C:\\agent")
    try:
        return 0 if run(agent) else 1
    finally:
        agent.remove_all()
        wine.stop()


if __name__ == "__main__":
    sys.exit(main())
