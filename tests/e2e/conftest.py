import pytest

from agent import Agent
from rpc_server import RpcServer
from unconfigured import UnconfiguredRun
from wine import Wine
from zelctl_bench import Bench


@pytest.fixture(scope="session", autouse=True)
def unconfigured_run():
    """Begins with the suite: what it waits for takes most of a minute, in the background."""
    run = UnconfiguredRun(Wine("e2e-unconfigured"))
    run.begin()
    yield run
    run.end()


@pytest.fixture(scope="session")
def wine():
    prefix = Wine("e2e")
    prefix.start()
    yield prefix
    prefix.stop()


@pytest.fixture
def agent(wine):
    installation = Agent(wine, "C:\\agent")
    installation.remove_all()  # what the test before has left
    installation.lay_out()
    return installation


@pytest.fixture
def bench(agent):
    return Bench(agent)


@pytest.fixture
def no_service(wine):
    """Nobody answers, whatever the tests before have left running."""
    Agent(wine, "C:\\agent").remove_all()


@pytest.fixture
def rpc_server(wine):
    server = RpcServer(wine)
    yield server
    server.stop()
