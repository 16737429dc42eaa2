#!/usr/bin/env python3
"""Makes the installer of the service.

    package/make_installer.py OUT.msi PROGRAMS CONFIGURATION EPOCH

PROGRAMS is the folder with zelservice.exe and zelctl.exe, whose version the installer gets, and
CONFIGURATION the plexor.conf of a new installation. OUT depends on nothing but these, their bytes,
EPOCH (seconds since 1970) and the versions of wixl and msibuild.
"""

import hashlib
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import uuid

SOURCE = pathlib.Path(__file__).resolve().parent / "zelservice.wxs"
PRODUCTS = uuid.UUID("0b3b6d3e-3a0f-4f0f-9a39-2f7a4f6b3c55")  # the name space of the product codes

# Full control for SYSTEM and Administrators, nothing from the directory above.
ADMINISTRATORS_ONLY = "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"
# Besides, users read and execute. An agent's directory has the rights that the agent gave it.
USERS_READ = ADMINISTRATORS_ONLY + "(A;OICI;0x1200a9;;;BU)"
RIGHTS = (  # directory, rights, condition
    ("INSTALLDIR", USERS_READ, "NOT AGENTDIRECTORY"),
    ("LogDirectory", ADMINISTRATORS_ONLY, ""),
    ("ConfigDirectory", ADMINISTRATORS_ONLY, ""),
    ("CbtDirectory", ADMINISTRATORS_ONLY, ""),
)

WIN64, PERMANENT, NEVER_OVERWRITE = 0x100, 0x10, 0x80
REGISTRY_KEY_PATH = 0x04
# A program in a directory, run by the installation's script as the system; how it ends is ignored.
RUN_AS_SYSTEM = 0x22 + 0x400 + 0x800 + 0x40
IN_ROLLBACK = 0x100


def file_version(program):
    """The four numbers of the version in a program's resources."""
    resources = pathlib.Path(program).read_bytes()
    fixed_info = resources.find(struct.pack("<II", 0xFEEF04BD, 0x00010000))
    if fixed_info < 0:
        raise ValueError(f"{program} has no version")
    high, low = struct.unpack_from("<II", resources, fixed_info + 8)
    return high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF


def beyond_wixl(versions):
    """The statements for what wixl has no words for. `versions`: {file: its version as text}."""
    yield from (
        f"UPDATE `Component` SET `Attributes` = {attributes} WHERE `Component` = '{component}'"
        for component, attributes in {
            # What stays when the product goes.
            "InstallDirectoryValue": WIN64 + PERMANENT + REGISTRY_KEY_PATH,
            "Log": WIN64 + PERMANENT,
            "ConfigurationDirectory": WIN64 + PERMANENT,
            "Bitmaps": WIN64 + PERMANENT,
            # Besides, one that is there is the administrator's.
            "Configuration": WIN64 + PERMANENT + NEVER_OVERWRITE,
        }.items())
    # Files with a version are replaced by later ones, whatever their dates; they have no hash.
    for name, version in versions.items():
        yield (f"UPDATE `File` SET `Version` = '{version}', `Language` = '1033' "
               f"WHERE `File` = '{name}'")
        yield f"DELETE FROM `MsiFileHash` WHERE `File_` = '{name}'"
    yield ("UPDATE `Property` SET `Value` = "
           "'OLDERVERSION;NEWERVERSION;INSTALLDIR;AGENTDIRECTORY;DRIVERSERVICE;SERVICEENTRY' "
           "WHERE `Property` = 'SecureCustomProperties'")
    # A start that fails, or takes long, is no failure of the installation: nothing waits for it.
    actions = (
        ("StartService", RUN_AS_SYSTEM, "start", 5910, "$Service=3 AND DRIVERSERVICE"),
        ("UndoInstallService", RUN_AS_SYSTEM + IN_ROLLBACK, "delete", 5700,
         "$Service=3 AND NOT SERVICEENTRY"),
    )
    for name, kind, verb, sequence, condition in actions:
        yield ("INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES "
               f"('{name}', {kind}, 'INSTALLDIR', '\"[System64Folder]sc.exe\" {verb} ZelService')")
        yield ("INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES "
               f"('{name}', '{condition}', {sequence})")
    yield ("CREATE TABLE `MsiLockPermissionsEx` (`MsiLockPermissionsEx` CHAR(72) NOT NULL, "
           "`LockObject` CHAR(72) NOT NULL, `Table` CHAR(32) NOT NULL, "
           "`SDDLText` CHAR(0) NOT NULL, `Condition` CHAR(255) "
           "PRIMARY KEY `MsiLockPermissionsEx`)")
    for directory, rights, condition in RIGHTS:
        yield ("INSERT INTO `MsiLockPermissionsEx` (`MsiLockPermissionsEx`, `LockObject`, `Table`, "
               f"`SDDLText`, `Condition`) VALUES ('{directory}', '{directory}', 'CreateFolder', "
               f"'{rights}', '{condition}')")


def run(*command):
    """Runs a tool whose warnings are failures, too: wixl leaves out what it does not know."""
    ended = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, text=True, env=dict(os.environ, TZ="UTC"))
    if ended.returncode != 0 or ended.stdout.strip():
        sys.exit(f"{command[0]} ended with {ended.returncode}: {ended.stdout}")


def settle_summary(installer, epoch):
    """Replaces the moments and the random code that the tools have written into the summary: the
    moments by `epoch`, the code by one made of everything else in the file."""
    content = bytearray(installer.read_bytes())
    form = bytes.fromhex("e0859ff2f94f6810ab9108002b27b3d9")  # FMTID_SummaryInformation
    start = content.find(form)
    if start < 0 or content.find(form, start + 1) >= 0:
        raise ValueError(f"{installer} should have one summary")
    section = start - 28 + struct.unpack_from("<I", content, start + 16)[0]
    count, = struct.unpack_from("<I", content, section + 4)
    offsets = dict(struct.unpack_from("<II", content, section + 8 + 8 * i) for i in range(count))
    for moment in (12, 13):  # created, last saved
        kind, = struct.unpack_from("<I", content, section + offsets[moment])
        if kind != 64:
            raise ValueError(f"{installer}: property {moment} of the summary is no time")
        struct.pack_into("<Q", content, section + offsets[moment] + 4,
                         epoch * 10_000_000 + 116_444_736_000_000_000)
    kind, length = struct.unpack_from("<II", content, section + offsets[9])
    at = section + offsets[9] + 8
    if kind != 30 or not re.fullmatch(rb"\{[0-9A-F-]{36}\}\0", content[at:at + length]):
        raise ValueError(f"{installer}: its summary has no package code")
    content[at:at + 38] = bytes(38)
    code = uuid.uuid5(PRODUCTS, hashlib.sha256(content).hexdigest())
    content[at:at + 38] = f"{{{code}}}".upper().encode()
    installer.write_bytes(content)


def make_installer(out, programs, configuration, epoch):
    versions = {name: file_version(programs / name) for name in ("zelservice.exe", "zelctl.exe")}
    version = ".".join(map(str, versions["zelservice.exe"][:3]))
    with tempfile.TemporaryDirectory() as folder:
        stage = pathlib.Path(folder)
        # wixl finds them beside the source; the cabinet has their times.
        for file in (SOURCE, programs / "zelservice.exe", programs / "zelctl.exe", configuration):
            shutil.copyfile(file, stage / file.name)
            os.utime(stage / file.name, (epoch, epoch))
        installer = stage / "zelservice.msi"
        run("wixl", "--arch", "x64", "-D", f"Version={version}",
            # One version is one product: of two builds of one, the second is refused.
            "-D", f"ProductCode={str(uuid.uuid5(PRODUCTS, version)).upper()}",
            "-D", f"Configuration={configuration.name}",
            "-o", str(installer), str(stage / SOURCE.name))
        texts = {name: ".".join(map(str, numbers)) for name, numbers in versions.items()}
        queries = [word for query in beyond_wixl(texts) for word in ("-q", query)]
        run("msibuild", str(installer), *queries)
        settle_summary(installer, epoch)
        shutil.copyfile(installer, out)


def main(arguments):
    if len(arguments) != 4:
        sys.exit(__doc__.strip())
    out, programs, configuration = map(pathlib.Path, arguments[:3])
    make_installer(out, programs, configuration, int(arguments[3]))


if __name__ == "__main__":
    main(sys.argv[1:])
