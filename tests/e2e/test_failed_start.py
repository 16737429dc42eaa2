"""A start whose RPC server cannot be set up: it says why, and stops in order."""

import contextlib
import re

from agent import SERVICE
from many_bitmaps import CLOSED_CLEANLY, UNRELIABLE
from wine import wait_until

FILE = "C:\\data\\tracked"
BLOCK = 4096
HEADER = 512
DLL_OVERRIDES = "HKCU\\Software\\Wine\\DllOverrides"
UNKNOWN_AUTHN_SERVICE = "1747"


@contextlib.contextmanager
def no_authentication_package(wine):
    wine.reg_add(DLL_OVERRIDES, "msv1_0", "REG_SZ", "")
    try:
        yield
    finally:
        wine.run("reg", "delete", DLL_OVERRIDES, "/v", "msv1_0", "/f", check=True)


def hold_a_write(agent):
    """Leaves the driver with a write to block 2 of a tracked file, and no service to report it to."""
    agent.install()
    agent.start()
    path = agent.wine.path(FILE)
    path.parent.mkdir(exist_ok=True)
    path.write_bytes(bytes(8 * BLOCK))
    with agent.client() as client:
        assert client.start_tracking(FILE, BLOCK)[0] == 0
    agent.stop()
    volume, file_id = agent.identity(FILE)
    assert agent.tell_driver(f"write {volume} {file_id} {2 * BLOCK} 1") == "ok"


def assert_bitmap_is_good_and_has_the_write(agent):
    directory = agent.wine.path(agent.directory) / "cbt"
    bitmap, = [path.read_bytes() for path in directory.glob("*/*/*")]
    assert (bitmap[CLOSED_CLEANLY], bitmap[UNRELIABLE]) == (1, 0)
    assert bitmap[HEADER:] == bytes([1 << 2])


def test_service_stops_with_the_code_of_the_step(wine, agent):
    hold_a_write(agent)
    with no_authentication_package(wine):
        assert wine.sc("start", SERVICE).returncode == 0  # it was pending then
        wait_until(lambda: agent.state() == "STOPPED", "the service has stopped")
        agent.wait_for_end()
    assert wine.service_status(SERVICE)["WIN32_EXIT_CODE"].split()[0] == UNKNOWN_AUTHN_SERVICE
    error, = [line for line in agent.log() if line.startswith("ERROR")]
    assert re.fullmatch(r"ERROR RpcServerRegisterAuthInfo failed: .+ \[1747\]", error)
    assert agent.lives() == [2, 2]
    assert_bitmap_is_good_and_has_the_write(agent)


def test_debug_mode_says_why_it_ends(wine, agent):
    hold_a_write(agent)
    with no_authentication_package(wine):
        ended = wine.run(agent.program, "-debug")
    assert ended.returncode == 0
    assert re.fullmatch(r"ZelServiceStart failed 1747: .+ \[1747\]\s*",
                        ended.stdout)
    assert_bitmap_is_good_and_has_the_write(agent)
