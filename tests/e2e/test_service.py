"""The service under the service control manager, from its start to the end of its process."""

import re

from agent import DRIVER_SERVICE, SERVICE, SERVICES_KEY
from many_bitmaps import ManyBitmaps
from wine import wait_until

PARAMETERS = f"{SERVICES_KEY}\\{DRIVER_SERVICE}\\Parameters"

START_AND_STOP = [
    r"INFO Service started",
    r"INFO Starting bitmap idle scanner thread",
    r"INFO InitBitmapManager: initializing cache",
    r"INFO Mini-filter version \d+\.\d+\.\d+\.\d+ started at \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}",
    r"INFO    Not started during boot; previous shutdown was dirty; no older driver already loaded",
    r"INFO    0 messages loaded from disk on startup",
    r"INFO    0 messages vaulted",
    r"INFO    0 messages sent from the vault",
    r"INFO    Messages loaded on startup status: Doesn't exist",
    r"INFO    0 files pending to be marked unreliable",
    r"INFO Synchronizing tracked files during startup",
    r"INFO Completed synchronizing tracked files",
    r"INFO Service stopped",
]


def test_start_and_stop_log_every_step_in_its_order(wine, agent):
    agent.install()
    agent.start()
    assert len(agent.processes()) == 1
    assert wine.service_state(DRIVER_SERVICE) == "RUNNING"  # started by the service
    running = wine.service_status(SERVICE)
    assert running["CHECKPOINT"] == "0x0"
    assert running["WAIT_HINT"] == "0x0"

    agent.stop()
    stopped = wine.service_status(SERVICE)
    assert stopped["WIN32_EXIT_CODE"].split()[0] == "0"
    assert stopped["SERVICE_EXIT_CODE"].split()[0] == "0"
    log = agent.log()
    assert len(log) == len(START_AND_STOP), log
    for line, pattern in zip(log, START_AND_STOP):
        assert re.fullmatch(pattern, line)


def test_service_can_be_started_again_and_goes_on_in_its_log(agent):
    agent.install()
    for _ in range(3):
        agent.start()
        agent.stop()
    assert agent.lives() == [3, 3]


def test_arguments_of_the_start_do_not_switch_the_driver_off(wine, agent):
    agent.install()
    assert wine.sc("start", SERVICE, "-debug", "-nodriver").returncode == 0
    wait_until(lambda: agent.state() == "RUNNING", "the service runs")
    assert "connected=1" in agent.tell_driver("counters")
    agent.stop()


def test_obsolete_registry_keys_go(wine, agent):
    agent.install()
    for name in ("TrackedFiles", "FileReliability"):
        wine.reg_add(f"{PARAMETERS}\\{name}", "value", "REG_SZ", "x")
    agent.start()
    agent.stop()
    for name in ("TrackedFiles", "FileReliability"):
        assert wine.reg_values(f"{PARAMETERS}\\{name}") is None
        key = f"SYSTEM\\CurrentControlSet\\Services\\{DRIVER_SERVICE}\\Parameters\\{name}"
        assert f"INFO Deleted obsolete registry key: {key}" in agent.log()


def start_in_vain(wine, agent):
    """Starts the service and returns the errors of its log.

    A start that failed stays pending, in which state no control is accepted: the manager itself
    refuses the stop. What the service does with one is an integration test.
    """
    answer = wine.sc("start", SERVICE)
    assert answer.returncode == 0, answer.stdout
    errors = wait_until(lambda: [line for line in written_log(agent) if line.startswith("ERROR")],
                        "an error in the log")
    assert agent.state() == "START_PENDING"
    assert wine.sc("stop", SERVICE).returncode != 0
    assert len(agent.processes()) == 1
    return errors


def written_log(agent):
    return agent.log() if agent.log_path.exists() else []


def test_start_without_the_driver_service_stays_pending(wine, agent):
    agent.run("-install")
    errors = start_in_vain(wine, agent)
    assert len(errors) == 2
    assert re.fullmatch(r"ERROR VelmoraStartDriver: OpenService failed: .+ "
                        r"\[ERROR_SERVICE_DOES_NOT_EXIST\]", errors[0])
    assert errors[1] == ("ERROR Cannot start Velmora Activity Monitor Driver, "
                         "aborting service start (1060)")


def test_start_with_a_refused_port_stays_pending(wine, agent):
    agent.install()
    assert wine.sc("start", DRIVER_SERVICE).returncode == 0
    wait_until(lambda: agent.tell_driver("refuse connects") == "ok", "the driver takes orders")
    assert start_in_vain(wine, agent) == ["ERROR FilterConnectCommunications Port failed"]


def test_stop_closes_1000_loaded_bitmaps_cleanly(agent):
    agent.install()
    agent.start()
    with agent.client() as client:
        bitmaps = ManyBitmaps(agent, client, "C:\\data\\many.bin")
        bitmaps.load(client, 999)
    assert bitmaps.count_clean() == 0
    agent.stop()
    assert bitmaps.count_clean() == 1000
