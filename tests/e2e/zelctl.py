"""The administrator's tool as a script calls it."""

import contextlib
import fcntl
import json
import os
import pty
import signal
import struct
import subprocess
import termios

from wine import BIN, RUN, rpc_client, wait_until, windows_path
from zelctl_shapes import check_failure, check_success


# How the runtime tells that nobody is there: a service that was killed stays registered for a while.
NOBODY_THERE = {1722: "RPC_S_SERVER_UNAVAILABLE", 1753: "EPT_S_NOT_REGISTERED"}


class Run(subprocess.Popen):
    """A run of zelctl that goes on beside the test: of the program that runs it, and of zelctl."""

    def __init__(self, zelctl, arguments, stdout):
        self.zelctl = zelctl
        super().__init__(zelctl.command(*arguments), env=zelctl.wine.environment,
                         stdin=subprocess.DEVNULL, stdout=stdout, stderr=subprocess.DEVNULL)

    def kill(self):
        """Ends every zelctl of the machine at once, as a crash does, and what runs this one."""
        self._kill_zelctl()
        super().kill()
        self.wait()
        # One that was about to begin may come up now.
        wait_until(lambda: not self._kill_zelctl() and not self._kill_zelctl(), "zelctl has ended")

    def _kill_zelctl(self):
        """How many there were."""
        processes = self.zelctl.wine.processes(self.zelctl.program)
        for process in processes:
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)
        return len(processes)


class Zelctl:
    program = windows_path(BIN / "zelctl.exe")

    def __init__(self, wine, through=()):
        """`through`: the program and its arguments that run it, if not the caller itself."""
        self.wine = wine
        self.through = through

    def command(self, *arguments):
        return [RUN, *self.through, *rpc_client("zelctl.exe"), *arguments]

    def run(self, *arguments, exit_code=0):
        """Standard output and standard error as text; the exit code must be the one expected."""
        done = subprocess.run(self.command(*arguments), env=self.wine.environment, timeout=120,
                              stdin=subprocess.DEVNULL, capture_output=True)
        assert done.returncode == exit_code, (arguments, done)
        return done.stdout.decode(), done.stderr.decode()

    def json(self, *arguments, exit_code=0):
        """The one object that --json prints, with the members that its command must have."""
        output, errors = self.run(*arguments, "--json", exit_code=exit_code)
        assert errors == ""
        answer = json.loads(output)
        assert answer["ok"] is (exit_code == 0)
        command = arguments[0] if arguments else ""
        if exit_code == 0:
            check_success(command, answer)
        else:
            check_failure(command, answer)
            assert answer["error"]["exit_code"] == exit_code
        return answer

    def any_json(self, *arguments):
        """The one object, however the run ended."""
        done = subprocess.run(self.command(*arguments, "--json"), env=self.wine.environment,
                              timeout=120, stdin=subprocess.DEVNULL, capture_output=True)
        return json.loads(done.stdout)

    def run_in(self, folder, *arguments):
        """Standard output of a run in that folder (a Linux path)."""
        done = subprocess.run(self.command(*arguments), env=self.wine.environment, timeout=120,
                              stdin=subprocess.DEVNULL, capture_output=True, cwd=folder, check=True)
        return done.stdout.decode()

    def trace(self, trace, calls, *arguments):
        """Runs to a good end, without calls that have a pipe, and leaves its calls of the kernel in the
        file `trace`, paths shown."""
        # Nothing else can get into a program that is traced.
        traced = ["strace", "-f", "-y", "-s0", "-e", f"trace={calls}", "-o", trace, RUN,
                  self.program]
        subprocess.run([*traced, *arguments], env=self.wine.environment, timeout=120,
                       stdin=subprocess.DEVNULL, capture_output=True, check=True)

    def start(self, *arguments, stdout=subprocess.DEVNULL):
        return Run(self, arguments, stdout)

    def on_terminal(self, columns, lines, *arguments, asked="", typed=""):
        """The exit code of a run on a terminal of that size, and the text that was drawn on it.
        `typed` is typed, with the Enter key, when `asked` has been drawn."""
        ours, its = pty.openpty()
        fcntl.ioctl(its, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))
        process = subprocess.Popen(self.command(*arguments), stdin=its, stdout=its, stderr=its,
                                   env=self.wine.environment | {"TERM": "xterm"},
                                   start_new_session=True)
        os.close(its)
        drawn = b""
        while piece := read_or_end(ours):
            drawn += piece
            if asked and asked.encode() in drawn:
                wait_until(lambda: takes_keys(ours), "the console takes keys as they are pressed")
                os.write(ours, typed.encode() + b"\r")
                asked = ""
        os.close(ours)
        return process.wait(60), drawn.decode()


def takes_keys(descriptor):
    """Whether the terminal hands on the Enter key as it is: until then it makes a line's end of it."""
    return not termios.tcgetattr(descriptor)[0] & termios.ICRNL


def read_or_end(descriptor):
    try:
        return os.read(descriptor, 1 << 16)
    except OSError:  # nobody has the terminal any more
        return b""
