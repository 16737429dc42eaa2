import pathlib
import shutil
import subprocess
import sys
import zipfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from wine import Wine  # noqa: E402


@pytest.fixture(scope="session")
def kit_zip():
    """The kit as tools/kit.sh makes it, in its folder below build/package."""
    made = subprocess.run([ROOT / "tools" / "kit.sh"], check=True, stdout=subprocess.PIPE, text=True)
    return ROOT / made.stdout.splitlines()[-1]


@pytest.fixture(scope="session")
def wine():
    prefix = Wine("kit")
    prefix.start()
    yield prefix
    prefix.stop()
    shutil.rmtree(prefix.prefix, ignore_errors=True)


@pytest.fixture(scope="session")
def kit(kit_zip, wine):
    """The kit unpacked where nothing else is, as somebody does who has the zip alone."""
    folder = wine.path("C:\\proving kit")
    shutil.rmtree(folder, ignore_errors=True)
    with zipfile.ZipFile(kit_zip) as archive:
        archive.extractall(folder)
    inner, = folder.iterdir()
    return Kit(wine, f"C:\\proving kit\\{inner.name}")


class Kit:
    def __init__(self, wine, directory):
        self.wine = wine
        self.directory = directory
        self.program = directory + "\\prove.exe"
        self.folder = wine.path(directory)

    def run(self, *arguments):
        return subprocess.run([ROOT / "tools" / "wine-run.sh", self.program, *arguments],
                              env=self.wine.environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=600)

    def left_behind(self):
        """What a run has left on the machine; nothing, if all is well."""
        services = [name for name in ("ZelService", "VelmoraActivityMonitor")
                    if self.wine.service_status(name) is not None]
        keys = [key for key in ("HKLM\\Software\\Velmora Inc",
                                "HKLM\\SYSTEM\\CurrentControlSet\\Services\\ZelService",
                                "HKLM\\SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor")
                if self.wine.run("reg", "query", key).returncode == 0]
        files = [name for name in ("work", "prove-state.txt") if (self.folder / name).exists()]
        programs = [program for program in ("zelservice.exe", "driversim.exe")
                    if self.wine.processes(f"{self.directory}\\work\\agent\\{program}")]
        return services + keys + files + programs
