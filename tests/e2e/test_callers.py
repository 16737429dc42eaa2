"""Who may call the shipped service, as its configuration file says while it runs."""

import pytest

from rpc_server import process_state
from wine import wait_until
from wire import FAULT, RESPONSE, Wire
from zel_client import LIST_FILES, PING, NO_CONTEXT, marshal_list_files
from zelctl import Zelctl

ACCESS_DENIED = (5).to_bytes(4, "little")


class Service:
    """The service with that line in its configuration."""

    def __init__(self, agent):
        self.agent = agent
        self.configuration = agent.wine.path(agent.directory) / "config" / "plexor.conf"

    def start(self, callers):
        self.configure(callers)
        self.agent.install()
        self.agent.start()
        self.port = self.agent.port()
        self.zelctl = Zelctl(self.agent.wine)

    def configure(self, callers):
        self.configuration.write_text(f"zelservicelog = info\nzelservice:RpcCallers = {callers}\n")

    def ping(self, wire):
        """Whether the connection's caller is let in."""
        kind, body = wire.call(PING, b"")
        if kind == FAULT:
            assert body[8:12] == ACCESS_DENIED, body
        else:
            assert (kind, body) == (RESPONSE, bytes(4))
        return kind == RESPONSE

    def connect(self):
        wire = Wire(self.port)
        assert wire.bind()
        return wire


@pytest.fixture
def service(agent):
    return Service(agent)


@pytest.mark.parametrize("callers", ["local", "administrators", "misspelt"])
def test_caller_from_the_network_is_refused_and_the_administrator_is_served(service, callers):
    service.start(callers)
    with service.connect() as remote:
        assert not service.ping(remote)
        kind, body = remote.call(LIST_FILES, marshal_list_files(NO_CONTEXT, 100))
        assert (kind, body[8:12]) == (FAULT, ACCESS_DENIED)
    service.zelctl.json("status")  # over ncalrpc, as the service's own account
    word = "local" if callers == "local" else "administrators"
    service.agent.stop()
    assert [line for line in service.agent.log() if "Refused" in line] == [
        "WARN Refused a call of a caller without authentication over ncacn_ip_tcp from 127.0.0.1: "
        f"RpcCallers is {word}"]


def test_doors_close_and_open_while_the_service_runs(service):
    service.start("any")
    process, = service.agent.processes()
    with service.connect() as remote:
        assert service.ping(remote)
        service.configure("local")
        wait_until(lambda: not service.ping(remote), "the door is closed")
        service.configuration.write_text("zelservicelog = debug\n")
        service.zelctl.json("status")
        assert not service.ping(remote)
        service.configure("any")
        wait_until(lambda: service.ping(remote), "the door is open")
        handles = process_state(process)[1]
        for callers in ("local", "administrators", "any") * 5:
            service.configure(callers)
            wait_until(lambda: service.ping(remote) == (callers == "any"), "the change holds")
        assert process_state(process)[1] <= handles + 10
    service.agent.stop()
    assert "INFO Changing RPC callers from any to local" in service.agent.log()
