"""A tracked file with bitmaps by the thousands."""

import os
import uuid

from bitmap_bytes import bitmap_bytes

BLOCK = 65_536
SIZE = 1 << 20
CLOSED_CLEANLY = 0x3C
UNRELIABLE = 0x3F


class ManyBitmaps:
    """A file of `agent` that the running service tracks."""

    def __init__(self, agent, client, name):
        self.path = agent.wine.path(name)
        self.path.parent.mkdir(exist_ok=True)
        self.path.write_bytes(bytes(SIZE))
        code, info = client.start_tracking(name, BLOCK)
        assert code == 0
        self.name, self.volume, self.file_id = name, info.volume_guid, info.file_id
        self.windows_directory = f"{agent.directory}\\cbt\\{self.volume}\\{self.file_id:016x}"
        self.directory = agent.wine.path(self.windows_directory)

    def load(self, client, count):
        """Has the service make and load `count` bitmaps more."""
        for _ in range(count):
            code, _ = client.start_tracking2(self.name, self.volume, self.file_id, SIZE, BLOCK)
            assert code == 0

    def lay_out(self, count):
        """Writes `count` bitmaps more, for the next start to find."""
        for number in range(count):
            created = 0x01D2A3B4C5D60000 + number
            path = self.directory / f"{created:016x}{BLOCK:08x}"
            path.touch()
            path.write_bytes(bitmap_bytes(volume=str(self.volume), file_id=self.file_id,
                                          file_size=SIZE, block_size=BLOCK, created=created,
                                          bitmap_id=os.stat(path).st_ino))

    def clear(self):
        """Deletes the bitmaps of a service that does not run."""
        for path in self.directory.iterdir():
            path.unlink()

    def headers(self):
        return [path.read_bytes()[:0x40] for path in self.directory.iterdir()]

    def count_clean(self):
        """How many of the bitmap files are closed cleanly and reliable."""
        return sum(header[CLOSED_CLEANLY] == 1 and header[UNRELIABLE] == 0
                   for header in self.headers())
