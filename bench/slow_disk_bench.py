#!/usr/bin/python3
"""The shipped service on a slow disk: what waits for a flush to the device, and how long. Flushes take
0, 1 and 10 ms longer than the machine's own; a disk takes about 10.

    bench/slow_disk_bench.py        ZEL_BIN: the folder of other executables, to compare

At +10 ms each figure has a limit. Ends non-zero when one is missed."""

import pathlib
import select
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from agent import SERVICE, Agent
from slow_disk import SlowDisk
from slow_disk_files import BLOCK, HOT_BLOCKS, VOLUME, SlowDiskFiles
from wine import Wine, rpc_client, wait_until

PROBE = rpc_client("slow_disk_probe.exe")
DELAYS_MS = 0, 1, 10
COUNTS = 300, 2_000
STOPPED_TOO = 5_000

# The limits, at +10 ms.
LIMITED_DELAY_MS = 10
FLUSHER_THREADS = 32  # of the service
WAIT_LIMIT_MS = 50
FIRST_WRITES_RATIO = 1.5
SYNC_RATIO = 1.5
STOP_LIMIT_S = {2_000: 3.0, 5_000: 5.0}

# First writes come at this rate while others are watched: on a fast disk the service is never late.
LOADS_PER_SECOND = 300
IDLE_TIMEOUT_S = 2
PATIENCE_S = 150
ERROR_SERVICE_REQUEST_TIMEOUT = 1053


class Probe:
    """slow_disk_probe.exe at work."""

    def __init__(self, agent, verb, *words):
        self.verb = verb
        self.process = agent.wine.popen(*PROBE, verb, *map(str, words), stdin=subprocess.PIPE)

    def answer(self):
        assert select.select([self.process.stdout], [], [], PATIENCE_S)[0], f"{self.verb} hangs"
        line = self.process.stdout.readline().strip()
        assert line, f"{self.verb} ended with {self.process.wait()}"
        return line

    def ask(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return self.answer()

    def wait_until_ready(self):
        assert self.answer() == "ready"
        return self

    def end(self):
        """The numbers that it prints then."""
        self.process.stdin.close()
        numbers = [int(word) for word in self.answer().split()]
        self.process.wait(timeout=PATIENCE_S)
        return numbers


class Report:
    """Prints the figures and judges them."""

    def __init__(self):
        self.kept = True
        self.undelayed = {}  # {(name, count): value at +0}

    def show(self, name, delay, count, value, unit, limit=None, note=""):
        """`limit` counts at one delay alone; the reference is the same without a delay."""
        if delay == 0:
            self.undelayed[name, count] = value
        reference = self.undelayed.get((name, count))
        undelayed = "" if reference is None else f"at +0 {reference:9.2f}"
        judged = limit is not None and delay == LIMITED_DELAY_MS
        is_kept = not judged or value <= limit
        self.kept = self.kept and is_kept
        verdict = f"(at most {limit:.2f}) {'ok' if is_kept else 'MISSED'}" if judged else ""
        print(f"+{delay:<2} ms {count:5}  {name:<30} {value:9.2f} {unit:<2}  {undelayed:<15}  "
              f"{note:<56}  {verdict}".rstrip(), flush=True)


class SlowDiskBench:
    """The service with `count` tracked files."""

    def __init__(self, agent, disk, report, count):
        self.agent, self.disk, self.report, self.count = agent, disk, report, count
        self.files = SlowDiskFiles(agent, count)
        self.block = 0  # the next one to be written in every cold file
        self.hot_block = 0  # likewise in the hot one
        self.delay = 0
        stop_driver(agent)
        self.files.lay_out()
        self.set_idle_timeout(600)

    # One after the other, each from where the one before ends

    def start(self):
        """With the hot bitmap loaded and no other."""
        self.disk.set_delay(0)
        self.agent.start()
        service, = self.agent.processes()
        assert self.disk.is_in(service), "the service's flushes are not slow"
        self.orders = Probe(self.agent, "orders")
        self.write(self.files.hot, self.hot_block)
        # Those that the driver has kept since the stop come before it.
        wait_until(lambda: all(map(self.files.hot.is_set, range(self.hot_block + 1))),
                   "every write to the hot file is in its bitmap", PATIENCE_S)
        self.hot_block += 1

    def set_delay(self, delay):
        self.delay = delay
        self.disk.set_delay(delay)
        folder = self.agent.wine.path("C:\\bare")
        self.bare_s = [self.disk.bare(folder, self.count, threads) for threads in (16, 32)]
        few = 20
        self.flush_s = self.disk.bare(folder, few, 1) / few
        print(f"+{delay:<2} ms {self.count:5}  {'one flush alone':<30} {1000 * self.flush_s:9.2f} ms",
              flush=True)

    def load_all(self):
        """All first writes at once, and the synchronization right after them."""
        assert self.orders.ask("hold") == "ok"
        for bitmap in self.files.cold:
            self.write(bitmap, self.block)
        flushes = self.disk.flushes()
        begin = time.monotonic()
        assert self.orders.ask("release") == "ok"
        self.wait_for_bits()
        loaded = time.monotonic()
        with self.agent.client() as client:
            client.transport.get_socket().settimeout(PATIENCE_S)
            begin_sync = time.monotonic()
            assert client.synchronize_bitmaps(self.agent.now()) == 0
            synchronized = time.monotonic()
        return loaded - begin, synchronized - begin_sync, self.disk.flushes() - flushes

    def watch_scan(self):
        """Has the idle scan unload everything but the hot bitmap."""
        watchers = self.watch(lookups=True)
        self.set_idle_timeout(IDLE_TIMEOUT_S)
        self.wait_for_each(lambda bitmap: bitmap.is_closed_cleanly(), "the scan unloads all")
        self.set_idle_timeout(600)
        return self.end_watch(*watchers)

    def watch_loads(self):
        """Loads everything again, at a rate."""
        watchers = self.watch(lookups=True)
        begin = time.monotonic()
        for number, bitmap in enumerate(self.files.cold):
            time.sleep(max(0, begin + number / LOADS_PER_SECOND - time.monotonic()))
            self.write(bitmap, self.block)
        self.wait_for_bits()
        return self.end_watch(*watchers)

    def watch_stop(self):
        """Seconds of the stop, its control's error, its flushes, what the writes saw meanwhile."""
        self.orders.process.stdin.close()
        self.orders.process.wait(timeout=PATIENCE_S)
        writes, = self.watch(lookups=False)
        flushes = self.disk.flushes()
        error, taken_us = Probe(self.agent, "stop", SERVICE).end()
        flushes = self.disk.flushes() - flushes
        self.agent.wait_for_end()
        waits = self.end_watch(writes)
        for bitmap in (self.files.hot, *self.files.cold):
            assert bitmap.is_closed_cleanly() and bitmap.is_reliable(), bitmap.path
        return taken_us / 1e6, error, flushes, waits

    # Their parts

    def set_idle_timeout(self, seconds):
        home = self.agent.wine.path(self.agent.directory)
        (home / "config" / "plexor.conf").write_text(
            f"zelservicelog = info\nzelservice:BitmapIdleTimeout = {seconds}\n")

    def write(self, bitmap, block):
        order = f"write {VOLUME} {bitmap.file_id} {block * BLOCK} 1"
        assert self.orders.ask(order) == "ok"

    def wait_for_bits(self):
        block = self.block
        self.wait_for_each(lambda bitmap: bitmap.is_set(block), "each first write is in its bitmap")
        self.block += 1

    def wait_for_each(self, holds, what):
        rest = iter(self.files.cold)
        for bitmap in rest:
            wait_until(lambda: holds(bitmap), what, PATIENCE_S, pause_s=0.001)

    def watch(self, lookups):
        """Probes at work: of writes to the hot bitmap and, on request, of look-ups."""
        assert self.hot_block < HOT_BLOCKS
        hot = self.files.hot
        probes = [Probe(self.agent, "writes", VOLUME, hot.file_id, hot.windows_path,
                        self.hot_block)]
        if lookups:
            probes += [Probe(self.agent, "bitmaps", VOLUME, hot.file_id),
                       Probe(self.agent, "files")]
        return [probe.wait_until_ready() for probe in probes]

    def end_watch(self, writes, *lookups):
        """{what: (how many, longest in ms, and of look-ups the median)}"""
        count, longest_us, unseen_us = writes.end()
        self.hot_block += count + (unseen_us != 0)
        # One that the service has not taken before its end waits for the next start.
        if self.agent.processes():
            longest_us = max(longest_us, unseen_us)
        waits = {"write": (count, longest_us / 1000)}
        for probe in lookups:
            count, longest_us, median_us = probe.end()
            waits[f"list of {probe.verb}"] = count, longest_us / 1000, median_us / 1000
        return waits

    # What they show

    def show(self, name, *rest, **more):
        self.report.show(name, self.delay, self.count, *rest, **more)

    def bare(self):
        return "bare 16/32 threads {:.2f}/{:.2f}".format(*self.bare_s)

    def show_load_all(self):
        taken, synchronized, flushes = self.load_all()
        undelayed = self.report.undelayed.get(("first writes", self.count), taken)
        self.show("first writes", taken, "s", FIRST_WRITES_RATIO * undelayed,
                  f"{self.bare()} s, {1000 * taken / self.count:.2f} ms a file")
        self.show("synchronization after them", synchronized, "s",
                  SYNC_RATIO * self.count * self.flush_s / FLUSHER_THREADS,
                  f"{self.bare()} s, {flushes} flushes")

    def show_waits(self, name, waits):
        for what, (count, longest, *median) in waits.items():
            # A list of thousands of files takes its time when nothing is in its way.
            limit = WAIT_LIMIT_MS + (self.usual_list_ms if what == "list of files" else 0)
            note = f"of {count}" + "".join(f", median {value:.2f} ms" for value in median)
            self.show(f"longest {what}, {name}", longest, "ms", limit, note)

    def show_stop(self):
        taken, error, flushes, waits = self.watch_stop()
        self.show("stop", taken, "s", STOP_LIMIT_S.get(self.count),
                  f"{self.bare()} s, {flushes} flushes")
        if error:
            in_time = " in time" if error == ERROR_SERVICE_REQUEST_TIMEOUT else ""
            print(f"+{self.delay:<2} ms {self.count:5}  the stop's control was not answered{in_time} "
                  f"({error})", flush=True)
        self.show_waits("stop", waits)

    def run(self):
        self.start()
        for delay in DELAYS_MS:
            self.set_delay(delay)
            self.show_load_all()
            scan = self.watch_scan()
            # Most of them came before the scan did.
            _, _, self.usual_list_ms = scan["list of files"]
            self.show_waits("scan", scan)
            self.show_waits("loads", self.watch_loads())
            self.show_stop()
            self.start()
        self.stop()

    def run_stop(self):
        """Of bitmaps that were loaded before the disk became slow."""
        self.start()
        self.load_all()
        self.set_delay(LIMITED_DELAY_MS)
        self.show_stop()
        self.start()
        self.stop()

    def stop(self):
        self.orders.process.stdin.close()
        self.agent.stop()


def stop_driver(agent):
    program = agent.directory + "\\driversim.exe"
    if agent.wine.processes(program):
        agent.tell_driver("stop")
        wait_until(lambda: not agent.wine.processes(program), "the driver has ended")


def run(agent, disk):
    agent.remove_all()
    agent.lay_out()
    agent.install()
    report = Report()
    for count in COUNTS:
        SlowDiskBench(agent, disk, report, count).run()
    SlowDiskBench(agent, disk, report, STOPPED_TOO).run_stop()
    return report.kept


def main():
    wine = Wine("slow-disk")
    disk = SlowDisk(wine)
    wine.start()
    agent = Agent(wine, "C:\\agent")
    try:
        return 0 if run(agent, disk) else 1
    finally:
        disk.set_delay(0)
        try:
            agent.remove_all()
        finally:
            wine.stop()


if __name__ == "__main__":
    sys.exit(main())
