"""The installer on a machine with and without the driver: install, upgrade, uninstall."""

import shutil

import pytest

from agent import AGENT_KEY, DRIVER_SERVICE, SERVICE, SERVICES_KEY, Agent
from packages import Packages, make_later_installer
from wine import BIN, Wine, wait_until, with_pipes

PROGRAM_FILES = "C:\\Program Files\\Velmora Agent"
UNINSTALL_KEY = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall"
FILE = "C:\\data\\tracked.bin"
BLOCK = 4096
BLOCKS = 64
REFUSED = 1603 % 256  # by a launch condition; here an exit code has eight bits


class Machine:
    """The prefix, with the packages in C:\\packages."""

    def __init__(self, wine, packages):
        self.wine = wine
        self.packages = packages
        self.folder = wine.path("C:\\packages")
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir()
        shutil.copy(packages.installer, self.folder / "first.msi")
        self.later_programs = make_later_installer(packages, self.folder)

    def msiexec(self, verb, name, *properties):
        """Returns the exit code."""
        package = f"C:\\packages\\{name}.msi"
        return self.wine.run("msiexec", verb, package, "/qn", *properties).returncode

    def clean(self):
        for name in ("later", "first"):
            if self.products():
                self.msiexec("/x", name)
        self.agent(PROGRAM_FILES).remove_all()
        self.wine.reg_delete(AGENT_KEY)
        for directory in (PROGRAM_FILES, "C:\\agent", "C:\\elsewhere", "C:\\data"):
            shutil.rmtree(self.wine.path(directory), ignore_errors=True)

    def agent(self, directory):
        return Agent(self.wine, directory)

    def add_driver(self, directory=PROGRAM_FILES):
        """The driver's service, played by the simulator, which the service finds beside itself."""
        home = self.wine.path(directory)
        home.mkdir(parents=True, exist_ok=True)
        for bench_file in ("fltlib.dll", "driversim.exe", "simhook.dll"):
            shutil.copy(BIN / "simulator" / bench_file, home)
        created = self.wine.sc("create", DRIVER_SERVICE, "binPath=",
                               f'"{directory}\\driversim.exe"', "type=", "own", "start=", "demand")
        assert created.returncode == 0, created.stdout

    def products(self):
        """The display versions under which Windows lists the product."""
        answer = self.wine.run("reg", "query", UNINSTALL_KEY, "/s", "/v", "DisplayVersion")
        return [line.split()[-1] for line in answer.stdout.splitlines() if "REG_SZ" in line]


@pytest.fixture(scope="module")
def prefix():
    wine = Wine("e2e-installer")
    wine.start()
    yield Machine(wine, Packages())
    wine.stop()


@pytest.fixture
def machine(prefix):
    prefix.clean()
    assert prefix.products() == []
    yield prefix
    prefix.clean()


def content(machine, path):
    return machine.wine.path(f"{PROGRAM_FILES}\\{path}").read_bytes()


def test_install_without_a_driver_leaves_the_service_stopped(machine):
    assert machine.msiexec("/i", "first") == 0
    for program in ("zelservice.exe", "zelctl.exe"):
        assert content(machine, program) == machine.packages.member(f"bin/{program}")
    assert content(machine, "config\\plexor.conf") == machine.packages.member("config/plexor.conf")
    for directory in ("log", "config", "cbt"):
        assert machine.wine.path(f"{PROGRAM_FILES}\\{directory}").is_dir()
    kind, value = machine.wine.reg_values(AGENT_KEY)["InstallDirectory"]
    assert (kind, value.rstrip("\\")) == ("REG_SZ", PROGRAM_FILES)
    entry = machine.wine.reg_values(f"{SERVICES_KEY}\\{SERVICE}")
    assert entry["ImagePath"][1] == f'"{PROGRAM_FILES}\\zelservice.exe"'
    assert machine.agent(PROGRAM_FILES).state() == "STOPPED"
    assert machine.products() == [machine.packages.version]


def start_installed(machine, name="first"):
    """Installs on a machine with a driver, which starts the service."""
    machine.add_driver()
    assert machine.msiexec("/i", name) == 0
    agent = machine.agent(PROGRAM_FILES)
    wait_until(lambda: agent.state() == "RUNNING", "the service runs")
    return agent


def test_install_beside_the_driver_starts_the_service(machine):
    agent = start_installed(machine)
    assert machine.wine.reg_values(f"{SERVICES_KEY}\\{DRIVER_SERVICE}")["Start"][1] == "0x0"
    zelctl = with_pipes(f"{PROGRAM_FILES}\\zelctl.exe")
    assert machine.wine.run(*zelctl, "status", "--check").returncode == 0
    wait_for_lives(agent, [1, 0])


def test_driver_that_cannot_start_does_not_fail_the_installation(machine):
    created = machine.wine.sc("create", DRIVER_SERVICE, "binPath=", "C:\\missing\\driver.exe",
                              "type=", "own", "start=", "demand")
    assert created.returncode == 0, created.stdout
    assert machine.msiexec("/i", "first") == 0
    assert machine.products() == [machine.packages.version]
    assert machine.agent(PROGRAM_FILES).state() in ("STOPPED", "START_PENDING")


def wait_for_lives(agent, lives):
    """Lines reach the log of a running service when it has been idle."""
    wait_until(lambda: agent.lives() == lives, f"the log tells of {lives}")


def set_blocks(bitmap):
    return {number for number in range(BLOCKS) if bitmap[512 + number // 8] >> number % 8 & 1}


def test_upgrade_over_a_running_service_keeps_bitmaps_and_configuration(machine):
    agent = start_installed(machine)
    machine.wine.path(FILE).parent.mkdir()
    machine.wine.path(FILE).write_bytes(bytes(BLOCKS * BLOCK))
    client = agent.client()
    code, info = client.start_tracking(FILE, BLOCK)
    assert code == 0
    volume, file_id = agent.identity(FILE)
    assert agent.tell_driver(f"write {volume} {file_id} {3 * BLOCK} 1") == "ok"
    assert client.synchronize_bitmaps(agent.now()) == 0
    client.close()
    configuration = b"zelservicelog = debug\r\n"
    machine.wine.path(f"{PROGRAM_FILES}\\config\\plexor.conf").write_bytes(configuration)

    assert machine.msiexec("/i", "later") == 0
    wait_until(lambda: agent.state() == "RUNNING", "the service runs")
    assert machine.products() == [next_version(machine.packages.version)]
    for program, expected in machine.later_programs.items():
        assert content(machine, program) == expected
    assert content(machine, "config\\plexor.conf") == configuration
    wait_for_lives(agent, [2, 1])

    assert agent.tell_driver(f"write {volume} {file_id} {5 * BLOCK} 1") == "ok"
    client = agent.client()
    assert client.synchronize_bitmaps(agent.now()) == 0
    code, chunks = client.copy_bitmap(info.bitmap_id)
    client.close()
    bitmap = b"".join(chunks)
    assert code == 0
    assert bitmap[0x3F] == 0  # reliable
    assert set_blocks(bitmap) == {3, 5}
    # An entry that is marked for deletion would go with the process.
    agent.stop()
    agent.start()


def next_version(version):
    first, second, third = version.split(".")
    return f"{first}.{second}.{int(third) + 1}"


def test_downgrade_is_refused_and_changes_nothing(machine):
    agent = start_installed(machine, "later")
    assert machine.msiexec("/i", "first") == REFUSED
    assert content(machine, "zelservice.exe") == machine.later_programs["zelservice.exe"]
    assert agent.state() == "RUNNING"
    wait_for_lives(agent, [1, 0])


def test_uninstall_removes_the_services_and_leaves_the_data(machine):
    agent = start_installed(machine)
    assert machine.msiexec("/x", "first") == 0
    agent.wait_for_end()
    assert agent.lives() == [1, 1]
    assert agent.state() is None
    assert machine.wine.reg_values(f"{SERVICES_KEY}\\{SERVICE}") is None
    assert machine.products() == []
    for program in ("zelservice.exe", "zelctl.exe"):
        assert not machine.wine.path(f"{PROGRAM_FILES}\\{program}").exists()
    assert content(machine, "config\\plexor.conf")
    assert machine.wine.path(f"{PROGRAM_FILES}\\cbt\\received-messages").exists()
    assert "InstallDirectory" in machine.wine.reg_values(AGENT_KEY)
    agent.tell_driver("stop")
    wait_until(lambda: machine.wine.service_state(DRIVER_SERVICE) is None,
               "the driver's service is not installed any more")


def test_install_goes_where_the_agent_is(machine):
    machine.wine.reg_add(AGENT_KEY, "InstallDirectory", "REG_SZ", "C:\\agent")
    assert machine.msiexec("/i", "first") == 0
    assert machine.wine.path("C:\\agent\\zelservice.exe").exists()
    assert not machine.wine.path(PROGRAM_FILES).exists()


def test_install_goes_where_it_is_told_and_upgrades_stay_there(machine):
    machine.wine.reg_add(AGENT_KEY, "InstallDirectory", "REG_SZ", "C:\\agent")
    assert machine.msiexec("/i", "first", "INSTALLDIR=C:\\elsewhere") == 0
    assert machine.wine.reg_values(AGENT_KEY)["InstallDirectory"][1].rstrip("\\") == "C:\\elsewhere"
    assert machine.msiexec("/i", "later", f"INSTALLDIR={PROGRAM_FILES}") == 0
    program = machine.wine.path("C:\\elsewhere\\zelservice.exe")
    assert program.read_bytes() == machine.later_programs["zelservice.exe"]
    assert not machine.wine.path(PROGRAM_FILES).exists()
