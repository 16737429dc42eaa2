"""Tracked files by the thousands, each with one bitmap, laid out for the service's next start: the list
in the registry and the bitmap files are written as the documents have them. The tracked files
themselves do not exist; the driver's reports name them by their ids."""

import os
import shutil
import struct
import uuid

from agent import DRIVE_C_VOLUME, DRIVER_SERVICE, SERVICES_KEY
from bitmap_bytes import bitmap_bytes

BLOCK = 65_536
BLOCKS = 64  # of a file
HOT_BLOCKS = 1 << 20
VOLUME = DRIVE_C_VOLUME
CREATED = 0x01DC92BF4C8A6D00
HEADER, CLOSED_CLEANLY, UNRELIABLE = 512, 0x3C, 0x3F
LIST_MAGIC = 0x7C18
HOT_ID = 0x10000  # the other files follow


class BitmapFile:
    """The bitmap of one tracked file, loaded or not."""

    def __init__(self, agent, file_id):
        self.file_id = file_id
        self.windows_path = (f"{agent.directory}\\cbt\\{VOLUME}\\{file_id:016x}\\"
                             f"{CREATED:016x}{BLOCK:08x}")
        self.path = agent.wine.path(self.windows_path)

    def lay_out(self, blocks):
        self.path.parent.mkdir(parents=True)
        self.path.touch()
        self.path.write_bytes(bitmap_bytes(
            volume=VOLUME, file_id=self.file_id, file_size=blocks * BLOCK, block_size=BLOCK,
            created=CREATED, bitmap_id=os.stat(self.path).st_ino))

    def is_set(self, block):
        return self._byte(HEADER + block // 8) >> block % 8 & 1 == 1

    def is_closed_cleanly(self):
        return self._byte(CLOSED_CLEANLY) == 1

    def is_reliable(self):
        return self._byte(UNRELIABLE) == 0

    def _byte(self, offset):
        file = os.open(self.path, os.O_RDONLY)
        try:
            return os.pread(file, 1, offset)[0]
        finally:
            os.close(file)


class SlowDiskFiles:
    """`count` files and one more, the hot one, whose bitmap is loaded while others are not."""

    def __init__(self, agent, count):
        self.agent = agent
        self.hot = BitmapFile(agent, HOT_ID)
        self.cold = [BitmapFile(agent, HOT_ID + 1 + number) for number in range(count)]

    def lay_out(self):
        """Neither the service nor the driver runs."""
        shutil.rmtree(self.agent.wine.path(self.agent.directory) / "cbt", ignore_errors=True)
        self.hot.lay_out(HOT_BLOCKS)
        for bitmap in self.cold:
            bitmap.lay_out(BLOCKS)
        self._track()

    def _track(self):
        """Writes the list, and that the driver has nothing to tell."""
        value = ",".join(f"{byte:02x}" for byte in self._list())
        key = f"{SERVICES_KEY}\\{DRIVER_SERVICE}\\Parameters".replace("HKLM", "HKEY_LOCAL_MACHINE")
        script = self.agent.wine.path("C:\\tracked.reg")
        script.write_text(f'REGEDIT4\n\n[{key}]\n"SimulatorEndedCleanly"=dword:00000001\n\n'
                          f'[{key}\\TrackedFileList]\n"{VOLUME}"=hex:{value}\n')
        imported = self.agent.wine.run("reg", "import", "C:\\tracked.reg")
        assert imported.returncode == 0, imported.stdout

    def _list(self):
        ids = [self.hot.file_id] + [bitmap.file_id for bitmap in self.cold]
        records = b""
        for number, file_id in enumerate(ids):
            path = f"C:\\tracked\\{number:05}.bin".encode("utf-16-le")
            length = 14 + len(path) if file_id != ids[-1] else 0
            records += struct.pack("<IQH", length, file_id, len(path)) + path
        return struct.pack("<H16sI", LIST_MAGIC, uuid.UUID(VOLUME).bytes_le, len(ids)) + records
