"""A tracked file, its copy, and zelctl with the shipped service between them. The driver is the
simulator; what it reports is what a program really does."""

import random
import shutil

from wine import BIN
from zelctl import Zelctl

BLOCK = 4096
SIZE = 512 * BLOCK
FILE = "C:\\data\\zelctl Größe.bin"
COPY = "C:\\data\\copy.bin"


class Bench:
    def __init__(self, agent):
        self.agent = agent
        self.zelctl = Zelctl(agent.wine)
        self.source = agent.wine.path(FILE)
        self.copy = agent.wine.path(COPY)
        self.records = self.copy.parent / ".zelctl"
        self.source.parent.mkdir(exist_ok=True)
        self.source.write_bytes(random.Random(1).randbytes(SIZE))
        for left in self.source.parent.glob("copy*"):
            left.unlink()
        shutil.rmtree(self.records, ignore_errors=True)
        agent.install()
        agent.start()

    def track(self, block_size="4K"):
        return self.zelctl.json("track", FILE, "--block-size", block_size)["bitmap_id"]

    def work(self, seed, *reach):
        """Lets a program write, append and truncate as it likes, where the driver sees it."""
        self.run_worker("random", seed, *reach)

    def run_worker(self, task, *numbers):
        ended = self.agent.wine.run(*self.seen_by_driver(),
                                    str(BIN / "simulator" / "file_worker.exe"), task,
                                    *map(str, numbers), FILE)
        assert ended.returncode == 0, ended.stdout

    def seen_by_driver(self):
        """What goes before a program whose file activity the driver sees."""
        return self.agent.directory + "\\driversim.exe", "run", "--"

    def write(self, offset, content):
        """A write of our own, told to the driver."""
        with open(self.source, "r+b") as file:
            file.seek(offset)
            file.write(content)
        volume, file_id = self.agent.identity(FILE)
        assert self.agent.tell_driver(f"write {volume} {file_id} {offset} {len(content)}") == "ok"

    def reads(self):
        """What programs seen by the driver have read of the file since this was last asked: how many
        bytes, those read twice counted twice, and [(offset, length)...]."""
        volume, file_id = self.agent.identity(FILE)
        ok, total, *ranges = self.agent.tell_driver(f"reads {volume} {file_id}").split()
        assert ok == "ok"
        return int(total), [tuple(map(int, text.split("+"))) for text in ranges]

    def apply(self, *more, copy=COPY, exit_code=0):
        return self.zelctl.json("apply", "--from", FILE, "--to", copy, *more, exit_code=exit_code)

    def is_equal(self, copy=COPY):
        return self.source.read_bytes() == self.agent.wine.path(copy).read_bytes()
