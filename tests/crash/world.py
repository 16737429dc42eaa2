"""The installation and its model side by side: what is ordered of the driver, the service and the disk
is told to both."""

import os
import shutil

from bitmap_bytes import bitmap_bytes
from choices import BLOCK_SIZES, any_size
from machine import Stuck, answer_of
from model import LOST, SIZE, WRITE, Bitmap, Report, Shape, read_state

FIRST_ID = 0x10000
FIRST_CREATED = 0x01D2A3B4C5D60000
ERROR_FILE_NOT_FOUND = "2"
ERROR_SHUTDOWN_IN_PROGRESS = "1115"


class Violation(Exception):
    """What the service promises does not hold."""


class World:
    def __init__(self, machine, seed, number, report, redelivers=False):
        self.machine, self.seed, self.number, self.report = machine, seed, number, report
        self.redelivers = redelivers
        self.trace = []
        self.sent = []         # reports whose answers are not read yet
        self.files = []
        self.planted = set()   # Linux paths
        self.held = []         # Windows paths
        self.cut_off = set()   # files of which a call that makes a bitmap had no answer
        self.dead = {}         # {bitmap: state}, as the last death left them
        self.made = 0          # bitmaps that were laid out

    @property
    def probe(self):
        return self.machine.probe

    def note(self, text):
        self.trace.append(text)

    def tracked(self):
        return [file for file in self.files if file.tracked is True]

    def some_tracked(self, most=20):
        files = self.tracked()
        return self.random.sample(files, min(len(files), self.random.randint(1, most)))

    def any_report(self, file):
        kind = self.random.random()
        if kind < 0.06:
            return Report(SIZE, self.random.choice((file.size, any_size(self.random))))
        if kind < 0.08:
            return Report(LOST)
        length = self.random.choice((1, 512, 4096, 70_000, 0))
        return Report(WRITE, self.random.randrange(file.size + file.size // 16), length)

    def send_reports(self, files, count):
        """The driver takes them one by one; finish_reports hears what it said."""
        for _ in range(count):
            file = self.random.choice(files)
            self.send_report(file, self.any_report(file))

    def send_report(self, file, report):
        key = f"{file.volume} {file.file_id}"
        order = {WRITE: f"write {key} {report.at} {report.length} 4242", SIZE: f"size {key} {report.at}",
                 LOST: f"unreported {key}"}[report.kind]
        self.note(order)
        self.sent.append((file, report, self.probe.send("driver", order)))

    def finish_reports(self):
        sent, self.sent = self.sent, []
        for file, report, future in sent:
            answer = answer_of(future)
            if answer == "ok":
                file.report(report)
            elif answer != "ok untracked":
                raise Stuck(f"the driver answered {answer}")
            elif file.tracked is True:
                raise Violation(f"the driver does not know {file.path}, which is tracked")
            else:
                file.change_unseen(report)
        self.report.sums["changes reported"] += len(sent)

    def report_changes(self, files, count):
        self.send_reports(files, count)
        self.finish_reports()

    def track(self, file):
        """Begins a call; finish_calls ends it."""
        block = self.random.choice(BLOCK_SIZES)
        self.note(f"track2 {file.path} {block}")
        self.cut_off.add(file.path)
        if file.tracked is not True:
            file.tracked = None
        future = self.probe.send("track2", file.path, file.volume, file.file_id, file.size, block)

        def finish(status, code, *rest):
            if status != "0":
                return
            if code != "0":
                if code == ERROR_SHUTDOWN_IN_PROGRESS:
                    return
                raise Violation(f"tracking {file.path} answered {code}")
            file.tracked = True
            bitmap_id, created = map(int, rest)
            name = f"{created:016x}{block:08x}"
            if name not in file.bitmaps and bitmap_id:
                file.add(Bitmap(name, Shape.of(file.size, block), bitmap_id=bitmap_id))
        return future, finish

    def untrack(self, file):
        self.note(f"untrack {file.path}")
        was_tracked, file.tracked = file.tracked is True, None
        future = self.probe.send("untrack", file.path)

        def finish(status, code, *_):
            if status != "0":
                return
            if code == ERROR_SHUTDOWN_IN_PROGRESS:
                return
            if code != "0" and (was_tracked or code != ERROR_FILE_NOT_FOUND):
                raise Violation(f"the end of tracking {file.path} answered {code}")
            if code == "0" or not was_tracked:
                file.tracked = False
                self.forget_bitmaps(file)
        return future, finish

    def delete(self, bitmap):
        self.note(f"delete {bitmap.name}")
        bitmap.wanted = False
        return self.probe.send("delete", bitmap.bitmap_id), lambda *_: None

    def finish_calls(self, calls):
        for future, finish in calls:
            answer = answer_of(future)
            self.note(f"  answer {answer[:60]}")
            finish(*answer.split())

    def forget_bitmaps(self, file):
        for bitmap in file.bitmaps.values():
            bitmap.wanted = False

    def remove(self, file, bitmap):
        path = self.path(file, bitmap)
        path.unlink(missing_ok=True)
        shutil.rmtree(f"{path}.missed", ignore_errors=True)
        del file.bitmaps[bitmap.name]

    def lay_out(self, file, block_size):
        """A new bitmap, as an earlier life of the service would have left it."""
        self.made += 1
        created = FIRST_CREATED + self.made
        bitmap = Bitmap(f"{created:016x}{block_size:08x}", Shape.of(file.size, block_size))
        path = self.path(file, bitmap)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.touch()
        bitmap.bitmap_id = os.stat(path).st_ino
        path.write_bytes(bitmap_bytes(volume=file.volume, file_id=file.file_id, file_size=file.size,
                                      block_size=block_size, created=created,
                                      bitmap_id=bitmap.bitmap_id))
        file.add(bitmap)
        self.dead[bitmap.name] = read_state(path.read_bytes())

    def plant(self):
        """What a creation that was cut off leaves, and what is none of ours."""
        file = self.random.choice(self.files)
        directory = self.machine.directory(file)
        directory.mkdir(parents=True, exist_ok=True)
        whole = bitmap_bytes(volume=file.volume, file_id=file.file_id, file_size=file.size,
                             block_size=4096)
        for data in b"", whole[:520], whole[:100], bytes(520), b"rubbish":
            self.made += 1
            name = f"{FIRST_CREATED + self.made:016x}{4096:08x}"
            if data == b"rubbish":
                name = f"rubbish{self.made}"
            elif data == whole[:520] and len(whole) <= 520:
                continue
            (directory / name).write_bytes(data)
            self.planted.add(directory / name)

    def path(self, file, bitmap):
        return self.machine.directory(file) / bitmap.name

    def entries(self, file):
        try:
            return list(self.machine.directory(file).iterdir())
        except FileNotFoundError:
            return []

    def state(self, file, bitmap):
        return self.state_of(self.path(file, bitmap))

    @staticmethod
    def state_of(path):
        try:
            return read_state(path.read_bytes(), os.path.isdir(f"{path}.missed"))
        except FileNotFoundError:
            return None
