"""One Wine prefix as the tests see it: programs, registry, services, files."""

import os
import pathlib
import re
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
RUN = ROOT / "tools" / "wine-run.sh"
BIN = pathlib.Path(os.environ.get("ZEL_BIN", ROOT / "build" / "mingw" / "bin"))


def windows_path(path):
    """A Linux path as programs of the prefix know it, whatever folder they run in."""
    return "Z:" + str(path.resolve()).replace("/", "\\")


def with_pipes(program):
    """What runs a client of the service, a Windows path. Wine's runtime knows no pipes: the bench
    carries out the calls that have one."""
    return windows_path(BIN / "simulator" / "driversim.exe"), "client", "--", program


def rpc_client(program):
    """Likewise, a client from the build's folder."""
    return with_pipes(windows_path(BIN / program))


def wait_until(condition, what, timeout_s=60.0, pause_s=0.02):
    """Polls `condition` and returns its first true answer; fails the test after `timeout_s`."""
    deadline = time.monotonic() + timeout_s
    while True:
        answer = condition()
        if answer:
            return answer
        assert time.monotonic() < deadline, f"waited {timeout_s} s in vain: {what}"
        time.sleep(pause_s)


class Wine:
    def __init__(self, name):
        self.prefix = ROOT / "build" / "wine" / name
        self.environment = dict(os.environ, ZEL_WINEPREFIX=str(self.prefix))

    def start(self):
        self.stop()  # what a run that was broken off has left
        self._control_server("--start")

    def stop(self):
        self._control_server("--stop")

    def _control_server(self, verb):
        # The server outlives the command and would hold a pipe open.
        subprocess.run([RUN, verb], env=self.environment, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True, timeout=120)

    def popen(self, *command, stdin=subprocess.DEVNULL):
        return subprocess.Popen(
            [RUN, *command], env=self.environment, stdin=stdin,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def run(self, *command, check=False):
        """Runs a program to its end; its output holds what it printed and its errors."""
        return subprocess.run(
            [RUN, *command], env=self.environment, stdin=subprocess.DEVNULL, check=check,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120)

    def path(self, windows_path):
        """The Linux path of a path on drive C."""
        assert windows_path.startswith("C:\\")
        return self.prefix / "drive_c" / windows_path[3:].replace("\\", "/")

    # Registry

    def reg_add(self, key, value, kind, data):
        self.run("reg", "add", key, "/v", value, "/t", kind, "/d", data, "/f", check=True)

    def reg_delete(self, key):
        self.run("reg", "delete", key, "/f")

    def reg_values(self, key):
        """The key's values as {name: (type, text)}; None when there is no such key."""
        answer = self.run("reg", "query", key)
        if answer.returncode != 0:
            return None
        fields = re.findall(r"^    (\S+)    (REG_\w+)    (.*?)\r?$", answer.stdout, re.MULTILINE)
        return {name: (kind, text) for name, kind, text in fields}

    # Services

    def sc(self, verb, service, *arguments):
        return self.run("sc", verb, service, *arguments)

    def service_status(self, service):
        """What `sc query` shows as {field: text}; None when there is no such service."""
        answer = self.sc("query", service)
        if answer.returncode != 0:
            return None
        return dict(re.findall(r"^\s*(\w+)\s*: (.*?)\s*$", answer.stdout, re.MULTILINE))

    def service_state(self, service):
        status = self.service_status(service)
        return status and status["STATE"].split()[1]

    def processes(self, windows_path):
        """The process ids of the programs of this prefix that were started as `windows_path`."""
        return [int(entry.name) for entry in pathlib.Path("/proc").iterdir()
                if entry.name.isdigit() and self._is_process(entry, windows_path)]

    def all_processes(self):
        """The process ids of everything that runs in this prefix, Wine's own programs included."""
        return [int(entry.name) for entry in pathlib.Path("/proc").iterdir()
                if entry.name.isdigit() and self._is_of_prefix(entry)]

    def listening_ports(self):
        """The TCP ports on which programs of this prefix listen; Wine's server holds the sockets."""
        listeners = subprocess.run(["ss", "-Hltnp"], stdout=subprocess.PIPE, text=True, check=True)
        return [int(port) for port, process in re.findall(r":(\d+)\s.*pid=(\d+),", listeners.stdout)
                if self._is_of_prefix(pathlib.Path("/proc") / process)]

    def _is_process(self, entry, windows_path):
        try:
            command_line = (entry / "cmdline").read_bytes()
        except OSError:  # ended meanwhile
            return False
        return (command_line.lstrip(b'"').startswith(windows_path.encode())
                and self._is_of_prefix(entry))

    def _is_of_prefix(self, entry):
        try:
            environment = (entry / "environ").read_bytes().split(b"\0")
        except OSError:  # ended meanwhile
            return False
        return f"WINEPREFIX={self.prefix}".encode() in environment
