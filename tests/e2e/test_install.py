"""-install and -remove against the service control manager."""

import pytest

from agent import DISPLAY_NAME, DRIVER_SERVICE, SERVICE, SERVICES_KEY, Agent

SERVICE_KEY = f"{SERVICES_KEY}\\{SERVICE}"
DRIVER_KEY = f"{SERVICES_KEY}\\{DRIVER_SERVICE}"


def create_driver_service(wine):
    created = wine.sc("create", DRIVER_SERVICE, "binPath=", "C:\\velmora.sys", "type=", "kernel",
                      "start=", "demand")
    assert created.returncode == 0, created.stdout
    assert wine.reg_values(DRIVER_KEY)["Start"] == ("REG_DWORD", "0x3")


def test_install_registers_the_service(wine, agent):
    agent.run("-install")
    assert agent.state() == "STOPPED"
    values = wine.reg_values(SERVICE_KEY)
    assert values["ImagePath"] in [(kind, agent.program) for kind in ("REG_SZ", "REG_EXPAND_SZ")]
    assert values["DisplayName"] == ("REG_SZ", DISPLAY_NAME)
    assert values["Type"] == ("REG_DWORD", "0x10")  # own process
    assert values["Start"] == ("REG_DWORD", "0x2")  # automatic
    assert values["ErrorControl"] == ("REG_DWORD", "0x1")  # normal
    assert values["ObjectName"] == ("REG_SZ", "LocalSystem")
    assert values["DependOnService"] == ("REG_MULTI_SZ", "RPCSS\\0VelmoraActivityMonitor")
    assert "Description" not in values
    assert "Group" not in values


def test_install_quotes_a_path_with_a_blank(wine, agent):
    spaced = Agent(wine, "C:\\Program Files\\Velmora Agent")
    spaced.lay_out()
    spaced.install()
    assert wine.reg_values(SERVICE_KEY)["ImagePath"][1] == f'"{spaced.program}"'
    spaced.start()
    spaced.stop()
    assert spaced.lives() == [1, 1]


def test_install_makes_the_driver_a_boot_driver(wine, agent):
    create_driver_service(wine)
    agent.run("-install")
    assert wine.reg_values(DRIVER_KEY)["Start"] == ("REG_DWORD", "0x0")


def test_second_install_changes_only_the_driver(wine, agent):
    create_driver_service(wine)
    agent.run("-install")
    before = wine.reg_values(SERVICE_KEY)
    wine.reg_add(DRIVER_KEY, "Start", "REG_DWORD", "3")
    agent.run("-install")
    assert wine.reg_values(SERVICE_KEY) == before
    assert wine.reg_values(DRIVER_KEY)["Start"] == ("REG_DWORD", "0x0")


def test_install_does_not_make_the_driver_service(wine, agent):
    agent.run("-install", "ignored", "-remove")
    assert agent.state() == "STOPPED"
    assert wine.reg_values(DRIVER_KEY) is None


@pytest.mark.parametrize("switch", ["-installx", "-inst", "-Install", "--install", "/installed"])
def test_other_spellings_install_nothing(agent, switch):
    agent.run(switch)
    assert agent.state() is None


def test_remove_deletes_a_stopped_service_and_the_driver_service(wine, agent):
    create_driver_service(wine)
    agent.run("-install")
    agent.run("-remove", "ignored")
    assert agent.state() is None
    assert wine.service_state(DRIVER_SERVICE) is None
    assert wine.reg_values(SERVICE_KEY) is None
    assert wine.reg_values(DRIVER_KEY) is None


def test_remove_stops_a_running_service_first(agent):
    agent.install()
    agent.start()
    agent.run("/remove")
    agent.wait_for_end()
    assert agent.state() is None
    assert agent.lives() == [1, 1]


def test_remove_without_a_service_still_removes_the_driver_service(wine, agent):
    create_driver_service(wine)
    agent.run("-remove")
    assert wine.service_state(DRIVER_SERVICE) is None


def test_remove_with_nothing_installed_is_harmless(agent):
    agent.run("-remove")
    assert agent.state() is None
