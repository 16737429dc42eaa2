"""The packages themselves, as files."""

import calendar
import posixpath
import re
import struct
import subprocess
import zipfile
import zlib

import pytest

from packages import FOLDER, Packages, read_table
from wine import ROOT

ADMINISTRATORS_ONLY = "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"
PERMANENT, NEVER_OVERWRITE, WIN64 = 0x10, 0x80, 0x100


@pytest.fixture(scope="module")
def packages():
    return Packages()


def members(package):
    with zipfile.ZipFile(package) as archive:
        return archive.infolist()


def test_checksums_are_those_of_the_packages(packages):
    subprocess.run(["sha256sum", "--strict", "-c", "SHA256SUMS"], cwd=FOLDER, check=True,
                   stdout=subprocess.DEVNULL)
    listed = {line.split()[1] for line in (FOLDER / "SHA256SUMS").read_text().splitlines()}
    assert listed == {path.name for path in (packages.release, packages.symbols,
                                             packages.installer)}


def test_release_has_programs_interface_documents_and_configuration(packages):
    names = {member.filename for member in members(packages.release)}
    expected = {"bin/zelservice.exe", "bin/zelctl.exe", "config/plexor.conf",
                "include/zel_bitmap.h", "rpc/zel.idl", "rpc/zel.h", "README.md"}
    expected |= {f"docs/{path.relative_to(ROOT / 'docs')}" for path in (ROOT / "docs").rglob("*")
                 if path.is_file()}
    assert {f"{packages.name}/{path}" for path in expected} <= names
    folders = {name.split("/")[1] for name in names}
    assert folders == {"bin", "config", "include", "rpc", "docs", "demo", "simulator", "README.md",
                       "CONTRIBUTING.md"}


def test_zips_have_one_time_one_owner_and_sorted_names(packages):
    for package in (packages.release, packages.symbols):
        listed = members(package)
        names = [member.filename for member in listed]
        assert names == sorted(names) and len(set(names)) == len(names)
        assert len({member.date_time for member in listed}) == 1
        for member in listed:
            assert member.extra == b""  # times and owners of files go there
            program = member.filename.endswith(".exe")
            assert member.external_attr >> 16 == 0o100000 | (0o755 if program else 0o644)


def test_links_between_the_documents_hold(packages):
    names = {member.filename for member in members(packages.release)}
    folders = {posixpath.dirname(name) for name in names}
    documents = [name for name in names if name.endswith(".md")]
    assert len(documents) > 9
    for document in documents:
        text = packages.member(document.removeprefix(packages.name + "/")).decode()
        for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", text):
            target = posixpath.normpath(posixpath.join(posixpath.dirname(document), link))
            assert target in names | folders, f"{document}: {link}"


def test_programs_have_their_symbols_beside_them(packages):
    for program in ("zelservice.exe", "zelctl.exe"):
        stripped = packages.member(f"bin/{program}")
        symbols = packages.member(f"bin/{program}.debug", packages.symbols)
        # What a debugger goes by: the file's name, filled up to four bytes, and its checksum.
        link = f"{program}.debug".encode() + b"\0"
        link += bytes(-len(link) % 4) + struct.pack("<I", zlib.crc32(symbols))
        assert link in stripped
        assert len(stripped) * 2 < len(symbols)


def test_programs_have_the_time_of_the_tree_and_no_folder_of_their_build(packages):
    in_zip = calendar.timegm((*members(packages.release)[0].date_time, 0, 0, 0))
    for program in ("zelservice.exe", "zelctl.exe"):
        content = packages.member(f"bin/{program}")
        header, = struct.unpack_from("<I", content, 0x3C)
        assert content[header:header + 4] == b"PE\0\0"
        time, = struct.unpack_from("<I", content, header + 8)
        assert time - in_zip in (0, 1)  # a zip has even seconds
        symbols = packages.member(f"bin/{program}.debug", packages.symbols)
        assert str(ROOT).encode() not in content + symbols


def test_configuration_is_the_template_with_ends_of_lines_as_on_windows(packages):
    template = (ROOT / "package" / "plexor.conf").read_bytes()
    assert packages.member("config/plexor.conf") == template.replace(b"\n", b"\r\n")


def test_installer_gives_log_config_and_cbt_to_administrators_alone(packages):
    made = {row["Directory_"] for row in read_table(packages.installer, "CreateFolder")}
    names = {row["Directory"]: row["DefaultDir"]
             for row in read_table(packages.installer, "Directory")}
    rights = read_table(packages.installer, "MsiLockPermissionsEx")
    assert {row["Table"] for row in rights} == {"CreateFolder"}
    assert {row["LockObject"] for row in rights} == made
    assert {names[row["LockObject"]]: (row["SDDLText"], row["Condition"]) for row in rights} == {
        "log": (ADMINISTRATORS_ONLY, ""), "config": (ADMINISTRATORS_ONLY, ""),
        "cbt": (ADMINISTRATORS_ONLY, ""),
        # Users may read the programs, unless an agent has said who may.
        "Velmora Agent": (ADMINISTRATORS_ONLY + "(A;OICI;0x1200a9;;;BU)", "NOT AGENTDIRECTORY")}


def test_installer_leaves_what_is_the_administrators(packages):
    attributes = {row["Component"]: int(row["Attributes"])
                  for row in read_table(packages.installer, "Component")}
    permanent = {name for name, bits in attributes.items() if bits & PERMANENT}
    assert set(attributes) - permanent == {"Service", "AdministratorsTool"}
    assert {name for name, bits in attributes.items() if bits & NEVER_OVERWRITE} == {
        "Configuration"}
    assert all(bits & WIN64 for bits in attributes.values())


def test_installer_has_the_version_of_the_programs(packages):
    properties = {row["Property"]: row["Value"]
                  for row in read_table(packages.installer, "Property")}
    assert properties["ProductVersion"] == packages.version
    versions = {row["File"]: row["Version"] for row in read_table(packages.installer, "File")}
    assert versions == {"zelservice.exe": packages.version + ".0",
                        "zelctl.exe": packages.version + ".0", "plexor.conf": ""}
    # A file with a hash would not be compared by its version.
    assert [row["File_"] for row in read_table(packages.installer, "MsiFileHash")] == [
        "plexor.conf"]


def test_installer_keeps_the_service_entry_in_an_upgrade(packages):
    """As Windows evaluates them; the run on Wine is in test_installer.py."""
    sequence = {row["Action"]: (int(row["Sequence"]), row["Condition"])
                for row in read_table(packages.installer, "InstallExecuteSequence")}
    order = sorted(sequence, key=lambda action: sequence[action][0])
    for earlier, later in [("StopServices", "RemoveService"), ("RemoveService", "RemoveFiles"),
                           ("InstallFiles", "InstallService"), ("CreateFolders", "InstallFiles"),
                           ("WriteRegistryValues", "InstallService"),
                           ("UndoInstallService", "InstallService"),
                           ("InstallService", "StartService"), ("StartService", "InstallExecute"),
                           ("InstallExecute", "RemoveExistingProducts"),
                           ("RemoveExistingProducts", "InstallFinalize")]:
        assert order.index(earlier) < order.index(later)
    assert sequence["RemoveService"][1] == "$Service=2 AND NOT UPGRADINGPRODUCTCODE"
    assert sequence["InstallService"][1] == "$Service=3"
    assert sequence["StartService"][1] == "$Service=3 AND DRIVERSERVICE"
    assert sequence["UndoInstallService"][1] == "$Service=3 AND NOT SERVICEENTRY"


def write_test_zip(folder, names, epoch="1763800000"):
    out = folder.with_suffix(".zip")
    for name in names:
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_text(f"this is {name}")
    subprocess.run([ROOT / "tools" / "reproducible_zip.py", out, "root", epoch,
                    *{folder / name.split("/")[0]: None for name in names}], check=True)
    return out.read_bytes()


def test_zip_depends_on_names_bytes_and_time_alone(tmp_path):
    names = ["b.exe", "a/z", "a/b"]
    first = write_test_zip(tmp_path / "one", names)
    (tmp_path / "two").mkdir()
    (tmp_path / "two" / "b.exe").touch(mode=0o600)
    assert write_test_zip(tmp_path / "two", names[::-1]) == first
    assert write_test_zip(tmp_path / "three", [*names, "c"]) != first
    assert write_test_zip(tmp_path / "four", names, "1763900000") != first
