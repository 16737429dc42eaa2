"""The program in the service mode, started by no service manager on a machine without an agent."""

import shutil

from agent import parse_log
from wine import BIN


class UnconfiguredRun:
    # The log's name ends at the first dot, which is in a directory's name.
    PROGRAM = "C:\\agents\\vendor\\no.agent\\zelservice.exe"
    LOG = "C:\\agents\\vendor\\no.log"
    CONFIGURATION = "C:\\agents\\config\\plexor.conf"

    def __init__(self, wine):
        self.wine = wine

    def begin(self):
        self.wine.start()
        program = self.wine.path(self.PROGRAM)
        shutil.rmtree(self.wine.path("C:\\agents"), ignore_errors=True)
        program.parent.mkdir(parents=True)
        self.wine.path(self.CONFIGURATION).parent.mkdir(parents=True)
        self.wine.path(self.CONFIGURATION).write_text("zelservicelog = info\n")
        shutil.copy(BIN / "zelservice.exe", program)
        self.process = self.wine.popen(self.PROGRAM, "debug")

    def finish(self):
        """The exit code, what was printed, and the log's lines."""
        output, _ = self.process.communicate(timeout=100)
        return self.process.returncode, output, parse_log(self.wine.path(self.LOG).read_bytes())

    def end(self):
        self.wine.stop()
        self.process.wait(timeout=20)
