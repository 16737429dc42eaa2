"""What a caller may name, and whose files the service touches: links that somebody has put below its
directories, rights that others have there, paths that lead away from this machine.

Links are those of Linux, which Wine shows as links of directories, follows for files, and cannot
delete: that a link itself goes is not to be seen here."""

import shutil
import uuid

import pytest

from agent import SERVICE
from wine import wait_until
from zel_client import ERROR_FILE_NOT_FOUND, NO_CONTEXT, read_tracked_files

VOLUME = uuid.UUID("01234567-89ab-cdef-0123-456789abcdef")
FILE_ID = 0x123
FILE_NAME = "0000000000000123"
BITMAP_NAME = "01d2a3b4c5d6e7f800010000"
ERROR_INVALID_NAME = 123
ERROR_FILENAME_EXCED_RANGE = 206


class Foreign:
    """A directory of somebody else's, which must stay as it is."""

    def __init__(self, path):
        self.path = path
        path.mkdir()

    def add(self, name, content):
        file = self.path / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content)
        return file

    def content(self):
        return {str(file.relative_to(self.path)): file.is_file() and file.read_bytes()
                for file in sorted(self.path.rglob("*"))}


@pytest.fixture
def foreign(tmp_path):
    return Foreign(tmp_path / "foreign")


@pytest.fixture
def cbt(agent):
    directory = agent.wine.path(agent.directory) / "cbt"
    directory.mkdir()
    agent.install()
    return directory


def link(place, target):
    place.parent.mkdir(parents=True, exist_ok=True)
    place.symlink_to(target)


def one_life(agent, during=lambda _: None):
    agent.start()
    with agent.client() as client:
        during(client)
    agent.stop()


def look_up(client):
    """Has the bitmaps of the file loaded, if there are any."""
    client.list_bitmaps(VOLUME, FILE_ID, NO_CONTEXT)


def track(client):
    return client.start_tracking2("C:\\nowhere\\file", VOLUME, FILE_ID, 1 << 20, 65536)


def bitmap_file(cbt):
    file, = (cbt / str(VOLUME) / FILE_NAME).iterdir()
    return file


# Links


def test_link_for_a_files_directory_is_not_scanned(agent, cbt, foreign):
    foreign.add("notes.txt", b"text " * 120)
    foreign.add("large", bytes(100_000))
    link(cbt / str(VOLUME) / FILE_NAME, foreign.path)
    before = foreign.content()
    one_life(agent, look_up)
    assert foreign.content() == before
    assert any("Listing directory" in line and FILE_NAME in line for line in agent.log())


def test_link_for_a_bitmap_is_not_opened(agent, cbt, foreign):
    one_life(agent, track)
    bitmap = bitmap_file(cbt)
    theirs = foreign.add("theirs", bitmap.read_bytes())
    bitmap.unlink()
    link(bitmap, theirs)
    before = foreign.content()
    one_life(agent, look_up)
    assert foreign.content() == before
    assert any(line.startswith("ERROR Failed to open bitmap ") and "ERROR_CANT_ACCESS_FILE" in line
               for line in agent.log())


def test_link_for_a_volumes_directory_takes_no_bitmap(agent, cbt, foreign):
    foreign.add("theirs", b"text")
    link(cbt / str(VOLUME), foreign.path)
    before = foreign.content()
    one_life(agent, track)
    assert foreign.content() == before
    assert any(line.startswith("ERROR Failed to create directory ") for line in agent.log())


def test_cleanup_leaves_what_links_lead_to(agent, cbt, foreign):
    foreign.add("notes.txt", b"text")
    foreign.add("empty directory/inner.txt", b"inner")
    (foreign.path / "empty directory" / "inner.txt").unlink()
    directory = cbt / str(VOLUME) / FILE_NAME
    link(directory / "to a directory", foreign.path)
    link(directory / "to an empty one", foreign.path / "empty directory")
    link(directory / "to a file", foreign.path / "notes.txt")
    link(cbt / str(VOLUME) / "0000000000000124", foreign.path / "empty directory")
    (directory / "stays until the end").write_bytes(b"")
    before = foreign.content()
    agent.start()
    wait_until(lambda: not (directory / "stays until the end").exists(), "the cleanup has run")
    agent.stop()
    assert foreign.content() == before


def test_link_for_the_messages_in_hand_is_not_written(agent, cbt, foreign):
    theirs = foreign.add("theirs", b"text")
    link(cbt / "received-messages", theirs)
    before = foreign.content()
    one_life(agent)
    assert foreign.content() == before
    assert any(line.startswith("WARN Messages in hand are lost") for line in agent.log())


def test_link_for_the_cbt_directory_ends_the_start(agent, cbt, foreign):
    foreign.add(f"{VOLUME}/{FILE_NAME}/{BITMAP_NAME}", bytes(1000))
    cbt.rmdir()
    link(cbt, foreign.path)
    before = foreign.content()
    agent.wine.sc("start", SERVICE)
    wait_until(lambda: b"cbt is a link, which is not followed: the service does not start"
               in agent.log_path.read_bytes(), "the start has ended")
    assert agent.state() == "START_PENDING"  # as after every start that fails
    agent.kill()
    assert foreign.content() == before


def test_link_for_the_log_directory_is_not_rolled(agent, cbt, foreign):
    log = agent.log_path.parent
    shutil.rmtree(log)
    foreign.add("zelservice.log", b"x" * (11 << 20))
    foreign.add("zelservice.log.9", b"nine")
    link(log, foreign.path)
    before = foreign.content()
    one_life(agent)
    assert foreign.content() == before


def test_link_for_the_log_is_not_written(agent, cbt, foreign):
    theirs = foreign.add("theirs", b"text")
    link(agent.log_path, theirs)
    before = foreign.content()
    one_life(agent)
    assert foreign.content() == before


# Rights


def others_may(path):
    return path.stat().st_mode & 0o007


def test_cbt_is_made_for_the_system_and_administrators(agent, cbt):
    cbt.rmdir()
    one_life(agent)
    assert others_may(cbt) == 0
    assert not any("rights" in line for line in agent.log())


def test_cbt_with_wider_rights_is_closed_with_one_warning(agent, cbt):
    one_life(agent, track)
    directory = bitmap_file(cbt).parent
    for place in (cbt, directory.parent, directory, bitmap_file(cbt)):
        place.chmod(0o777)
    agent.log_path.unlink()
    one_life(agent)
    for place in (cbt, directory.parent, directory, bitmap_file(cbt)):
        assert others_may(place) == 0, place
    warnings = [line for line in agent.log() if "rights" in line]
    assert len(warnings) == 1 and "S-1-1-0" in warnings[0] and "cbt" in warnings[0]
    agent.log_path.unlink()
    one_life(agent)
    assert not any("rights" in line for line in agent.log())


# Paths

NOT_LOCAL = [
    r"\\attacker\share\file", r"\\?\UNC\attacker\share\file", r"\\.\pipe\name",
    r"\\.\PhysicalDrive0", r"C:\agent\zelservice.exe:stream", r"C:\agent\NUL.",
]
FORGED = "C:\\x\r\n2026-01-01 00:00:00.000 INFO  [1] forged by a caller\r\nx"
LONG = "C:\\" + "p" * 1_000_000


def start_codes(client, path):
    return (client.start_tracking(path, 4096)[0],
            client.start_tracking2(path, VOLUME, FILE_ID, 5000, 4096)[0])


def test_paths_that_are_no_local_files_are_refused_and_leave_a_line_each(agent, cbt):
    def call(client):
        for path in NOT_LOCAL + [FORGED]:
            assert start_codes(client, path) == (ERROR_INVALID_NAME, ERROR_INVALID_NAME), path
            assert client.stop_tracking(path) == ERROR_FILE_NOT_FOUND
        assert start_codes(client, LONG) == (ERROR_FILENAME_EXCED_RANGE, ERROR_FILENAME_EXCED_RANGE)
        assert client.stop_tracking(LONG) == ERROR_FILENAME_EXCED_RANGE
        assert read_tracked_files(client.get_tracked_files()[1]) == []
        # Windows leaves it out: the same file.
        assert client.start_tracking("C:\\agent\\zelservice.exe.", 4096)[0] == 0

    one_life(agent, call)
    assert not (cbt / str(VOLUME)).exists()
    assert "INFO forged by a caller" not in agent.log()
    assert agent.log_path.stat().st_size < 20_000
