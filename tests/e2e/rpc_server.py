"""rpc_test_server.exe in a Wine prefix, and what it holds."""

import pathlib
import shutil
import subprocess
import threading

from wine import BIN, wait_until
from zel_client import ZelClient


def process_state(pid):
    """(memory of its own in KiB, open file descriptors, threads) of a Linux process."""
    process = pathlib.Path(f"/proc/{pid}")
    rollup = (process / "smaps_rollup").read_text().splitlines()
    private = sum(int(line.split()[1]) for line in rollup
                  if line.startswith(("Private_Dirty:", "Swap:")))
    return private, len(list((process / "fd").iterdir())), len(list((process / "task").iterdir()))


class RpcServer:
    INSTALL_DIRECTORY = "C:\\rpc-server"

    def __init__(self, wine):
        self.wine = wine
        shutil.rmtree(wine.path(self.INSTALL_DIRECTORY), ignore_errors=True)
        self.process = wine.popen(str(BIN / "simulator" / "rpc_test_server.exe"), self.INSTALL_DIRECTORY,
                                  stdin=subprocess.PIPE)
        limit = threading.Timer(60, self.process.kill)
        limit.start()
        self.endpoints = {}
        while (line := self.process.stdout.readline().split()) != ["ready"]:
            assert line, "the server has not come up"
            self.endpoints[line[0]] = line[1]
        limit.cancel()
        self.port = int(self.endpoints["ncacn_ip_tcp"])

    def client(self):
        return ZelClient(self.port)

    def alive(self):
        with self.client() as client:
            return client.ping() == 0

    def state(self):
        return process_state(self.process.pid)

    def settled_state(self):
        """The state once the connections that were closed are gone from it."""
        last = self.state()

        def unchanged():
            nonlocal last
            before, last = last, self.state()
            return before[1:] == last[1:]

        wait_until(unchanged, "the server has let go of its connections", pause_s=0.2)
        return last

    def bitmap_files(self):
        cbt = self.wine.path(self.INSTALL_DIRECTORY) / "cbt"
        return [path for path in cbt.rglob("*") if path.is_file()]

    def stop(self):
        """Ends the server and returns its exit code."""
        self.process.stdin.close()
        return self.process.wait(timeout=30)
