"""A stop with a client that keeps its call: it has asked for a bitmap and reads nothing of it."""

import socket
import struct
import subprocess
import time
import uuid

import pytest

from agent import DRIVE_C_VOLUME, DRIVER_SERVICE, SERVICE
from bitmap_bytes import CLOSED_CLEANLY, UNRELIABLE
from wine import BIN, wait_until
from wire import Wire, request_packet
from zel_client import COPY_BITMAP

FILE = "C:\\data\\kept open.bin"
SIZE = 1 << 29  # in blocks of one byte: more than the sockets between the two hold
STOP_LIMIT_S = 12
PATIENCE_S = 10  # of the service


class StuckClient:
    """Has asked for a bitmap of 64 MiB, of which the first bytes have arrived."""

    def __init__(self, agent):
        self.agent = agent
        path = agent.wine.path(FILE)
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(bytes(4096))
        with agent.client() as client:
            code, info = client.start_tracking2(FILE, uuid.UUID(DRIVE_C_VOLUME),
                                                path.stat().st_ino, SIZE, 1)
        assert code == 0
        self.wire = Wire(agent.port())
        self.wire.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        assert self.wire.bind()
        self.wire.send(request_packet(COPY_BITMAP, struct.pack("<Q", info.bitmap_id)))
        assert self.wire.socket.recv(1, socket.MSG_PEEK)

    def close(self):
        self.wire.socket.close()


@pytest.fixture
def stuck_client(agent):
    agent.install()
    clients = []

    def connect():
        clients.append(StuckClient(agent))
    yield connect
    for client in clients:
        client.close()


def assert_all_bitmaps_clean(agent):
    headers = {path: header for path in (agent.wine.path(agent.directory) / "cbt").rglob("*")
               if path.is_file() and (header := beginning(path)).startswith(b"ZELb")}
    assert headers
    for path, header in headers.items():
        assert header[CLOSED_CLEANLY] == 1 and header[UNRELIABLE] == 0, path


def beginning(path):
    with open(path, "rb") as file:
        return file.read(512)


def assert_lasted(seconds):
    """As long as the service waits for its clients, and within the limit."""
    assert PATIENCE_S <= seconds < STOP_LIMIT_S


def test_service_stops_in_time(agent, stuck_client):
    agent.start()
    stuck_client()
    begin = time.monotonic()
    # The process ends in its control handler: the manager may find nobody left to take its answer.
    agent.wine.sc("stop", SERVICE)
    wait_until(lambda: agent.state() == "STOPPED", "the service has stopped")
    agent.wait_for_end()
    assert_lasted(time.monotonic() - begin)
    assert agent.log()[-2:] == [
        "WARN A client keeps its call although the service has stopped: ending without it",
        "INFO Service stopped"]
    status = agent.wine.service_status(SERVICE)
    assert status["WIN32_EXIT_CODE"].split()[0] == "0"
    assert_all_bitmaps_clean(agent)


def test_console_stops_in_time(agent, stuck_client):
    assert agent.wine.sc("start", DRIVER_SERVICE).returncode == 0
    console = agent.wine.popen(str(BIN / "console_interrupt.exe"), agent.program, "-debug",
                               stdin=subprocess.PIPE)
    wait_until(lambda: len(agent.wine.listening_ports()) == 1, "the program serves calls")
    stuck_client()
    begin = time.monotonic()
    output, _ = console.communicate("\n", timeout=60)
    assert_lasted(time.monotonic() - begin)
    assert output.strip() == "interrupted 00000000"
    assert_all_bitmaps_clean(agent)
