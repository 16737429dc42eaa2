"""One Wine prefix with the product, the simulated driver and the probe: starts, calls, kills. Paths
are Linux ones, what the probe is told has Windows ones."""

import concurrent.futures
import os
import pathlib
import signal
import subprocess
import threading
import time

from agent import DRIVE_C_VOLUME, Agent
from kill_points import KillPoints
from slow_disk import SlowDisk
from wine import Wine, rpc_client

PROBE = rpc_client("crash_probe.exe")
INSTALL_DIRECTORY = "C:\\agent"
RUNNING, STOPPED = "4", "1"
ALREADY_RUNNING = 1056
PATIENCE_S = 60
VOLUME = DRIVE_C_VOLUME


class Stuck(Exception):
    """The bench waited in vain."""


def wait_for(condition, what, timeout_s=PATIENCE_S, pause_s=0.002):
    deadline = time.monotonic() + timeout_s
    while not condition():
        if time.monotonic() > deadline:
            raise Stuck(f"waited {timeout_s} s in vain: {what}")
        time.sleep(pause_s)


class Probe:
    """crash_probe.exe: each order gets a future with its answer."""

    def __init__(self, wine):
        self.process = wine.popen(*PROBE, stdin=subprocess.PIPE)
        self.lock = threading.Lock()
        self.waiting = {}
        self.count = 0
        threading.Thread(target=self._listen, daemon=True).start()

    def _listen(self):
        for line in self.process.stdout:
            tag, _, answer = line.strip().partition(" ")
            with self.lock:
                future = self.waiting.pop(tag, None)
            if future is not None:
                future.set_result(answer)
        with self.lock:
            left, self.waiting = self.waiting, {}
        for future in left.values():
            future.set_exception(Stuck("the probe has ended"))

    def send(self, *words):
        future = concurrent.futures.Future()
        with self.lock:
            self.count += 1
            tag = str(self.count)
            self.waiting[tag] = future
            self.process.stdin.write(f"{tag} {' '.join(map(str, words))}\n")
            self.process.stdin.flush()
        return future

    def ask(self, *words):
        return answer_of(self.send(*words))

    def close(self):
        self.process.stdin.close()
        self.process.wait(timeout=PATIENCE_S)


def answer_of(future):
    try:
        return future.result(timeout=PATIENCE_S)
    except concurrent.futures.TimeoutError:
        raise Stuck("the probe does not answer") from None


class Machine:
    def __init__(self, name):
        """Before the first program of the prefix."""
        self.wine = Wine(name)
        self.disk = SlowDisk(self.wine)
        self.points = KillPoints(self.wine)
        self.agent = Agent(self.wine, INSTALL_DIRECTORY)
        self.home = self.wine.path(INSTALL_DIRECTORY)
        self.cbt = self.home / "cbt"
        self.log = self.home / "log" / "zelservice.log"

    def set_up(self):
        self.wine.start()
        self.agent.remove_all()
        self.in_hand = 0  # of the driver's counters, when they were last read
        self.agent.lay_out()
        self.agent.install()
        self.probe = Probe(self.wine)

    def replace_probe(self):
        """What the old one held open is let go of."""
        self.probe.close()
        self.probe = Probe(self.wine)

    def tear_down(self):
        try:
            self.wine.stop()
        except subprocess.TimeoutExpired:
            # Seen once, of two prefixes at a time: the server did not end by itself.
            for process in self.wine.all_processes():
                os.kill(process, signal.SIGKILL)

    def configure(self, idle_timeout=600, level="info"):
        (self.home / "config" / "plexor.conf").write_text(
            f"zelservicelog = {level}\nzelservicelog:bitmap = {level}\n"
            f"zelservicelog:drivercomm = {level}\n"
            f"zelservice:BitmapIdleTimeout = {idle_timeout}\nzelservice:SyncTimeout = 30\n")

    # The service's life

    def begin_start(self):
        self.points.process = 0
        return self.probe.send("start")

    def start(self):
        """Returns when the service runs."""
        self.finish_start(self.begin_start())

    def finish_start(self, starting):
        deadline = time.monotonic() + PATIENCE_S
        while (error := int(answer_of(starting))) == ALREADY_RUNNING and time.monotonic() < deadline:
            time.sleep(0.002)
            starting = self.begin_start()
        if error != 0:
            raise Stuck(f"the start answered {error}")
        wait_for(lambda: self.probe.ask("state") == RUNNING, "the service runs")
        self.started = time.monotonic()

    def lives(self):
        """Whether the process is there."""
        try:
            stat = pathlib.Path(f"/proc/{self.points.process}/stat").read_text()
        except OSError:
            return False
        return stat.rpartition(")")[2].split()[0] not in ("Z", "X")

    def kill(self):
        """Ends the service as a crash does; nothing when it has ended already."""
        process = self.points.process
        if process == 0:
            return
        try:
            os.kill(process, signal.SIGKILL)
        except ProcessLookupError:
            pass
        wait_for(lambda: not self.lives(), "the process has ended")

    def stop(self):
        """An orderly stop, until the process has gone."""
        error = int(self.probe.ask("stop"))
        if error != 0:
            raise Stuck(f"the stop answered {error}")
        wait_for(lambda: not self.lives(), "the service has stopped")

    # Files

    def directory(self, file):
        return self.cbt / file.volume / f"{file.file_id:016x}"

    def windows_path(self, file, name):
        return f"{INSTALL_DIRECTORY}\\cbt\\{file.volume}\\{file.file_id:016x}\\{name}"
