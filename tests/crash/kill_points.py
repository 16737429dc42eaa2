"""The countdown to the service's end (kill_points.c), set from outside."""

import mmap
import pathlib
import struct
import subprocess

SOURCE = pathlib.Path(__file__).with_name("kill_points.c")
CONTROL = struct.Struct("<qII")  # countdown, kinds, process
REQUEST, FLUSH, FILE = 1, 2, 4


class KillPoints:
    def __init__(self, wine):
        """Before the first program of the prefix; after what else is to be loaded into it."""
        library = wine.prefix.parent / "kill_points.so"
        subprocess.run(["clang", "-O2", "-shared", "-fPIC", "-Wall", "-Wextra", "-Werror",
                        "-o", library, SOURCE], check=True)
        control = wine.prefix.with_name(wine.prefix.name + ".kill_points")
        control.write_bytes(CONTROL.pack(0, 0, 0))
        with open(control, "r+b") as file:
            self._control = mmap.mmap(file.fileno(), CONTROL.size)
        others = wine.environment.get("ZEL_WINE_PRELOAD", "")
        wine.environment["ZEL_WINE_PRELOAD"] = f"{library}:{others}".rstrip(":")

    def arm(self, kinds, countdown):
        """Ends the service at the `countdown`-th call of these kinds from now on."""
        self._control[:8] = bytes(8)
        self._control[8:12] = struct.pack("<I", kinds)
        self._control[:8] = struct.pack("<q", countdown)

    @property
    def reached(self):
        """Whether the countdown that was armed last has come to its end."""
        countdown, kinds, _ = CONTROL.unpack_from(self._control)
        return kinds != 0 and countdown <= 0

    def disarm(self):
        self._control[:8] = bytes(8)

    @property
    def process(self):
        """The Linux id of the service that started last; 0 until the next one does."""
        return struct.unpack_from("<I", self._control, 12)[0]

    @process.setter
    def process(self, number):
        self._control[12:16] = struct.pack("<I", number)
