"""The service under the service control manager, from its start to the end of its process."""

from agent import SERVICE


def test_service_runs_until_it_is_stopped(wine, agent):
    agent.run("-install")
    agent.start()
    assert len(agent.processes()) == 1
    running = wine.service_status(SERVICE)
    assert running["CHECKPOINT"] == "0x0"
    assert running["WAIT_HINT"] == "0x0"

    agent.stop()
    stopped = wine.service_status(SERVICE)
    assert stopped["WIN32_EXIT_CODE"].split()[0] == "0"
    assert stopped["SERVICE_EXIT_CODE"].split()[0] == "0"
    assert agent.log() == ["INFO Service started", "INFO Service stopped"]


def test_service_can_be_started_again_and_goes_on_in_its_log(agent):
    agent.run("-install")
    for _ in range(3):
        agent.start()
        agent.stop()
    assert agent.log() == ["INFO Service started", "INFO Service stopped"] * 3


def test_arguments_of_the_start_do_not_switch_the_driver_off(wine, agent):
    agent.run("-install")
    assert wine.sc("start", SERVICE, "-debug", "-nodriver").returncode == 0
    agent.stop()
    assert agent.log() == ["INFO Service started", "INFO Service stopped"]
