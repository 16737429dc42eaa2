"""A disk whose flushes take as long as one likes, for all programs of a Wine prefix that were started
with it (slow_flush.c)."""

import ctypes
import mmap
import os
import pathlib
import struct
import subprocess
import threading
import time

SOURCE = pathlib.Path(__file__).with_name("slow_flush.c")
CONTROL = struct.Struct("<QQ")  # nanoseconds that a flush sleeps, flushes so far


class SlowDisk:
    def __init__(self, wine):
        """Before the first program of the prefix. Flushes sleep not at all until they are told to."""
        self.library = wine.prefix.parent / "slow_flush.so"
        self.library.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["clang", "-O2", "-shared", "-fPIC", "-Wall", "-Wextra", "-Werror",
                        "-o", self.library, SOURCE], check=True)
        control = wine.prefix.with_name(wine.prefix.name + ".slow_flush")
        control.write_bytes(CONTROL.pack(0, 0))
        with open(control, "r+b") as file:
            self._control = mmap.mmap(file.fileno(), CONTROL.size)
        wine.environment["ZEL_WINE_PRELOAD"] = str(self.library)
        os.environ["WINEPREFIX"] = str(wine.prefix)
        self._flush = ctypes.CDLL(str(self.library)).fsync

    def set_delay(self, milliseconds):
        self._control[:8] = struct.pack("<Q", milliseconds * 1_000_000)

    def flushes(self):
        """How many there were so far, those of `bare` among them."""
        return CONTROL.unpack_from(self._control)[1]

    def is_in(self, process):
        """Whether the flushes of a process are slow ones."""
        return str(self.library) in pathlib.Path(f"/proc/{process}/maps").read_text()

    def bare(self, directory, count, threads):
        """Seconds that it takes `threads` threads to change and flush `count` files of a folder."""
        directory.mkdir(exist_ok=True)
        files = [os.open(directory / str(number), os.O_RDWR | os.O_CREAT) for number in range(count)]
        try:
            for file in files:
                os.pwrite(file, bytes(1024), 0)
            os.sync()
            begin = time.monotonic()
            self._flush_all(iter(files), threading.Lock(), threads)
            return time.monotonic() - begin
        finally:
            for file in files:
                os.close(file)

    def _flush_all(self, files, lock, threads):
        def flush_some():
            while True:
                with lock:
                    file = next(files, None)
                if file is None:
                    return
                os.pwrite(file, b"changed", 0)
                assert self._flush(file) == 0

        workers = [threading.Thread(target=flush_some) for _ in range(threads)]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
