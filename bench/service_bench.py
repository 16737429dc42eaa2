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


def bench_start(agent, bitmaps):
    bitmaps.clear()
    print(f"start without a bitmap: {timed(agent, 'start'):.2f} s")
    agent.stop()
    bitmaps.lay_out(KNOWN)
    taken = timed(agent, "start")
    with agent.client() as client:
        (_, _, _, known), = read_tracked_files(client.get_tracked_files()[1])
        assert len(known) == KNOWN
    agent.stop()
    assert bitmaps.count_clean() == KNOWN
    opened = timed(agent, "open", bitmaps.windows_directory)
    return report(f"start with {KNOWN} bitmaps", taken, opened, 2)


def run(agent):
    agent.remove_all()
    agent.lay_out()
    agent.install()
    kept, bitmaps = bench_stop(agent)
    return bench_start(agent, bitmaps) and kept


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
