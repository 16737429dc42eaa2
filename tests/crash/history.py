"""One history: a fresh installation, and rounds of a start, a check, work and a death. The choices come
from (seed, number of the history, number of the round) alone."""

import random
import shutil
import time

from choices import BLOCK_SIZES, COUNTS, NO_KILL, Plan, any_size, weighted
from inspection import Inspection
from machine import VOLUME, answer_of
from model import File
from world import FIRST_ID

ROLL_BYTES = 10 * 1024 * 1024 + 1
NEVER_IDLE, SOON_IDLE = 600, -2
SCAN_PERIOD_S = 10
SHARE_NOTHING, SHARE_READ, SHARE_ALL = 0, 1, 7


class History(Inspection):
    def run(self, rounds):
        self.random = random.Random(f"{self.seed}/{self.number}")
        self.begin()
        for number in range(rounds):
            self.round_number = number
            self.random = random.Random(f"{self.seed}/{self.number}/{number}")
            self.plan = Plan.draw(self.random)
            self.note(f"round {number}: {self.plan}")
            self.round()
            self.report.rounds[self.plan.kind, self.plan.flush_ms] += 1
        self.plan = Plan(NO_KILL, 0, None)
        self.machine.disk.set_delay(0)
        self.start_and_check()
        self.stop_and_check()
        self.count_messages_in_hand()

    def begin(self):
        """Nothing is tracked; then the files of this history are, each with its bitmaps."""
        self.round_number = 0
        self.plan = self.death = Plan(NO_KILL, 0, None)
        self.machine.disk.set_delay(0)
        self.machine.configure()
        shutil.rmtree(self.machine.cbt, ignore_errors=True)
        self.machine.log.unlink(missing_ok=True)
        self.probe.ask("wipe")
        self.machine.start()
        self.probe.ask("driver", "redeliver" if self.redelivers else "forget")
        for number in range(weighted(self.random, COUNTS)):
            file = File(VOLUME, FIRST_ID + number, f"C:\\tracked\\{number:03}.bin",
                        any_size(self.random), tracked=None)
            self.files.append(file)
        self.finish_calls([self.track(file) for file in self.files])
        self.stop_and_check()

    def round(self):
        plan = self.plan
        self.machine.disk.set_delay(0)
        self.machine.configure(SOON_IDLE if plan.kind == "scan" else NEVER_IDLE,
                               "trace" if self.random.random() < 0.05 else "info")
        self.prepare()
        if plan.kind in ("start", "log roll"):
            self.machine.disk.set_delay(plan.flush_ms)
            return self.die_in_start()
        self.start_and_check()
        self.machine.disk.set_delay(plan.flush_ms)
        {"first writes": self.first_writes, "burst": self.burst, "load": self.load,
         "unload": self.unload, "stop": self.stop_in_work, "registry": self.registry,
         "deletion": self.deletion, "held file": self.hold_files, "scan": self.scan,
         NO_KILL: self.live_on}.get(plan.kind, self.call)()

    def prepare(self):
        """Replaces most of what the death has left untrusted: the next one is to find clean bitmaps."""
        for file in self.tracked():
            for bitmap in list(file.bitmaps.values()):
                state = self.dead.get(bitmap.name)
                if bitmap.wanted and not (state and state.looks_clean) and self.random.random() < 0.8:
                    self.remove(file, bitmap)
                    self.lay_out(file, self.random.choice(BLOCK_SIZES))
        if self.random.random() < 0.1:
            self.plant()
        if self.plan.kind == "log roll":
            with open(self.machine.log, "ab") as log:
                log.truncate(ROLL_BYTES)

    def die_in_start(self):
        plan = self.plan
        self.machine.points.arm(plan.trigger.kinds, plan.trigger.countdown)
        starting = self.machine.begin_start()
        began = time.monotonic()
        limit = plan.trigger.after_ms / 1000
        while time.monotonic() < began + limit and not (
                self.machine.points.process and not self.machine.lives()):
            time.sleep(0.001)
        while self.machine.points.process == 0 and not starting.done():
            time.sleep(0.001)
        self.end_life()
        answer_of(starting)
        self.look_at_the_dead()

    def die(self, work):
        """Lets the trigger loose, begins `work`, and sees the service's end."""
        trigger = self.plan.trigger
        self.machine.points.arm(trigger.kinds, trigger.countdown)
        began = time.monotonic()
        calls = work() or []
        while time.monotonic() < began + trigger.after_ms / 1000 and self.machine.lives():
            time.sleep(0.0005)
        self.end_life()
        self.finish_reports()
        self.finish_calls(calls)
        self.look_at_the_dead()

    def end_life(self):
        self.death = self.plan
        self.report.by_point[self.plan.kind] += self.machine.points.reached
        self.machine.points.disarm()
        self.machine.kill()
        self.note("killed")

    def settle_and_load(self, files):
        """Bitmaps that are loaded, with everything processed."""
        self.report_changes(files, 2 * len(files))
        self.synchronize()
        for file in self.files:
            file.settle()

    def first_writes(self):
        files = self.some_tracked(most=60) or self.files
        self.probe.ask("driver", "hold")
        for file in files:
            self.send_report(file, self.any_report(file))
        self.report_changes(files, self.random.randint(0, len(files)))
        self.die(lambda: self.probe.send("driver", "release") and None)

    def burst(self):
        files = self.some_tracked() or self.files
        if self.random.random() < 0.5:
            self.settle_and_load(files)
        self.die(lambda: self.send_reports(files, self.random.randint(20, 200)))

    def load(self):
        files = self.some_tracked() or self.files

        def work():
            self.send_reports(files, len(files))
            return [(self.probe.send("bitmaps", file.volume, file.file_id), lambda *_: None)
                    for file in files]
        self.die(work)

    def unload(self):
        """A stop of loaded bitmaps, cut off."""
        self.settle_and_load(self.some_tracked(most=60) or self.files)
        self.die(lambda: [(self.probe.send("stop"), lambda *_: None)])

    def stop_in_work(self):
        """A stop while changes are reported and calls are under way, cut off or not."""
        files = self.some_tracked() or self.files

        def work():
            self.send_reports(files, 30)
            calls = [(self.probe.send("stop"), lambda *_: None)]
            if self.tracked() and self.random.random() < 0.5:
                calls.append(self.track(self.random.choice(self.tracked())))
            return calls
        self.die(work)

    def registry(self):
        """Starts and stops of tracking: each writes the list."""
        files = self.random.sample(self.files, min(len(self.files), 8))

        def work():
            calls = [self.untrack(file) if file.tracked and self.random.random() < 0.5
                     else self.track(file) for file in files]
            self.send_reports(files, 8)
            return calls
        self.die(work)

    def deletion(self):
        """Bitmaps are deleted and made again, files tracked no more and tracked again."""
        files = self.some_tracked(most=6) or self.files

        def work():
            calls = []
            for file in files:
                wanted = [bitmap for bitmap in file.bitmaps.values() if bitmap.wanted]
                if wanted:
                    calls.append(self.delete(self.random.choice(wanted)))
                calls.append(self.track(file))
            self.send_reports(files, 8)
            return calls
        self.die(work)

    def hold_files(self):
        """Somebody keeps bitmaps open while changes come or their deletion does."""
        files = self.some_tracked(most=5) or self.files
        for file in files:
            for bitmap in file.bitmaps.values():
                path = self.machine.windows_path(file, bitmap.name)
                share = self.random.choice((SHARE_NOTHING, SHARE_READ, SHARE_READ, SHARE_ALL))
                if self.probe.ask("hold", path, share) == "0":
                    self.note(f"held {path} {share}")
                    self.held.append(path)
                    bitmap.may_be_distrusted()
        self.report_changes(files, 3 * len(files))
        if self.random.random() < 0.5:
            self.synchronize()

        def work():
            self.send_reports(files, 4)
            calls = []
            for file in files:
                wanted = [bitmap for bitmap in file.bitmaps.values() if bitmap.wanted]
                if wanted and self.random.random() < 0.3:
                    calls.append(self.delete(self.random.choice(wanted)))
            return calls
        if self.random.random() < 0.3:
            self.finish_calls(work())
            self.finish_reports()
            self.let_some_go()
            self.stop_and_look()
        else:
            self.die(work)
            self.let_some_go()

    def let_some_go(self):
        """Before the next start, which finds the others held."""
        if self.random.random() < 0.7:
            for path in self.held:
                self.probe.ask("let", path)
            self.held = []

    def call(self):
        name = self.plan.kind.split()[1]
        files = self.some_tracked(most=8) or self.files

        def one(file):
            if name == "track":
                return self.track(file)
            if name == "untrack":
                return self.untrack(file)
            bitmaps = list(file.bitmaps.values())
            if name == "delete" and bitmaps:
                return self.delete(bitmaps[0])
            words = {"bitmaps": [file.volume, file.file_id], "sync": [self.machine.agent.now()],
                     "copy": [bitmaps[0].bitmap_id if bitmaps else 1], "delete": [1]}.get(name, [])
            return self.probe.send(name, *words), lambda *_: None

        def work():
            self.send_reports(files, len(files))
            return [one(file) for file in files]
        self.die(work)

    def scan(self):
        """A pass of the idle scan over loaded bitmaps, cut off or not."""
        files = self.some_tracked(most=60) or self.files
        self.settle_and_load(files)
        wait = self.machine.started + SCAN_PERIOD_S - 0.2 - time.monotonic()
        time.sleep(max(wait, 0))

        def work():
            self.send_reports(files, 5)
            time.sleep(max(0, self.machine.started + SCAN_PERIOD_S - 0.05 - time.monotonic()))
        self.die(work)

    def live_on(self):
        self.settle_and_load(self.some_tracked(most=60) or self.files)
        self.stop_and_check()
