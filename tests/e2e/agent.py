"""An installation of the product in a Wine prefix."""

import os
import re
import shutil
import signal
import time

from wine import BIN, wait_until
from zel_client import ZelClient

SERVICE = "ZelService"
DISPLAY_NAME = "Velmora Activity Monitoring Service"
DRIVER_SERVICE = "VelmoraActivityMonitor"
DRIVE_C_VOLUME = "00000000-0000-0000-0000-000000000043"
SERVICES_KEY = "HKLM\\SYSTEM\\CurrentControlSet\\Services"
AGENT_KEY = "HKLM\\Software\\Velmora Inc\\DruAgent"

LOG_LINE = re.compile(
    rb"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (TRACE|DEBUG|INFO |WARN |ERROR) \[\d+\] ([^\r\n]*)")


def parse_log(log_bytes):
    """The lines as "LEVEL message"; every line must have the layout and end in CR LF."""
    assert log_bytes == b"" or log_bytes.endswith(b"\r\n")
    lines = []
    for line in log_bytes.split(b"\r\n")[:-1]:
        fields = LOG_LINE.fullmatch(line)
        assert fields, f"not a log line: {line!r}"
        lines.append((fields[1].strip() + b" " + fields[2]).decode())
    return lines


class Agent:
    """The product in `directory`, which the registry names as the install directory."""

    def __init__(self, wine, directory):
        self.wine = wine
        self.directory = directory
        self.program = directory + "\\zelservice.exe"
        self.log_path = wine.path(directory) / "log" / "zelservice.log"

    def lay_out(self):
        home = self.wine.path(self.directory)
        shutil.rmtree(home, ignore_errors=True)
        (home / "log").mkdir(parents=True)
        (home / "config").mkdir()
        (home / "config" / "plexor.conf").write_text("zelservicelog = info\n")
        shutil.copy(BIN / "zelservice.exe", home)
        for bench_file in ("fltlib.dll", "driversim.exe", "simhook.dll"):
            shutil.copy(BIN / "simulator" / bench_file, home)
        self.wine.reg_add(AGENT_KEY, "InstallDirectory", "REG_SZ", self.directory)

    def install(self):
        """Installs the driver's service, played by the simulator, and the service itself."""
        created = self.wine.sc("create", DRIVER_SERVICE, "binPath=",
                               self.directory + "\\driversim.exe", "type=", "own", "start=", "demand")
        assert created.returncode == 0, created.stdout
        self.run("-install")

    def tell_driver(self, order):
        """Gives the simulated driver an order and returns its answer."""
        return self.wine.run(self.directory + "\\driversim.exe", "tell", order).stdout.strip()

    def port(self):
        """The TCP port on which the running service serves its interface: the prefix's only one."""
        port, = self.wine.listening_ports()
        return port

    def client(self):
        return ZelClient(self.port())

    @staticmethod
    def now():
        """The present as a FILETIME."""
        return time.time_ns() // 100 + 116_444_736_000_000_000

    def identity(self, windows_path):
        """(volume GUID, file id) of a file as the driver's orders name them."""
        return DRIVE_C_VOLUME, self.wine.path(windows_path).stat().st_ino

    def run(self, *arguments):
        """Runs the program to its end. Its exit code is 0 and it prints nothing, whatever happens."""
        ended = self.wine.run(self.program, *arguments)
        assert (ended.returncode, ended.stdout) == (0, "")

    def start(self):
        answer = self.wine.sc("start", SERVICE)
        assert answer.returncode == 0, answer.stdout
        wait_until(lambda: self.state() == "RUNNING", "the service runs")

    def stop(self):
        answer = self.wine.sc("stop", SERVICE)
        assert answer.returncode == 0, answer.stdout
        wait_until(lambda: self.state() == "STOPPED", "the service has stopped")
        self.wait_for_end()

    def wait_for_end(self):
        wait_until(lambda: not self.processes(), "the process has ended")

    def kill(self):
        """Ends the program at once, as a crash does; nothing when it does not run."""
        for process in self.processes():
            os.kill(process, signal.SIGKILL)
        self.wait_for_end()

    def state(self):
        return self.wine.service_state(SERVICE)

    def processes(self):
        return self.wine.processes(self.program)

    def log(self):
        return parse_log(self.log_path.read_bytes())

    def lives(self):
        """How often the log tells that the service started and stopped: [started, stopped]."""
        log = self.log()
        return [log.count("INFO Service started"), log.count("INFO Service stopped")]

    def remove_all(self):
        """Takes every trace of a test out of the service control manager."""
        if self.state() == "RUNNING":  # the manager may have started it itself
            self.stop()
        self.kill()
        if self.wine.service_state(DRIVER_SERVICE) == "RUNNING":
            self.tell_driver("stop")
            # A service whose program is still there is not deleted yet, and cannot be made anew.
            wait_until(lambda: not self.wine.processes(self.directory + "\\driversim.exe"),
                       "the driver has ended")
        for service in (SERVICE, DRIVER_SERVICE):
            self.wine.sc("delete", service)
            self.wine.reg_delete(f"{SERVICES_KEY}\\{service}")
