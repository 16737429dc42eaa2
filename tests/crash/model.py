"""What the bitmaps must hold, may hold and may never hold, from what was reported alone. It knows
nothing of the service: a report is bytes, a bitmap is a block size and a number of blocks."""

import struct
from dataclasses import dataclass, field

HEADER_BYTES = 512
AT_BLOCK_SIZE, AT_CLOSED_CLEANLY, AT_SIZE_CHANGED, AT_UNRELIABLE = 0x38, 0x3C, 0x3E, 0x3F
AT_BITMAP_SIZE, AT_FILE_SIZE = 0x40, 0x48
MAGIC = 0x624C455A

WRITE, SIZE, LOST = "write", "size", "lost"


@dataclass(frozen=True)
class Report:
    """A change as the driver reports it: `at` is the offset of a write and the new size of a file.
    LOST: changes went unreported."""
    kind: str
    at: int = 0
    length: int = 0


@dataclass(frozen=True)
class Effect:
    """What a report does to one bitmap."""
    bits: int = 0  # bit i stands for block i
    size_changed: bool = False
    unreliable: bool = False

    def __or__(self, other):
        return Effect(self.bits | other.bits, self.size_changed or other.size_changed,
                      self.unreliable or other.unreliable)


def span(first, end):
    """The bits from `first` to in front of `end`."""
    return (1 << max(end, first)) - (1 << first)


@dataclass(frozen=True)
class Shape:
    """`bits`: what the bitmap has room for, the last byte's unused ones among them."""
    block_size: int
    file_size: int
    bits: int

    @staticmethod
    def of(file_size, block_size):
        blocks = -(-file_size // block_size)
        return Shape(block_size, file_size, -(-blocks // 8) * 8)

    def effect(self, report):
        if report.kind == LOST:
            return Effect(unreliable=True)
        if report.kind == SIZE:
            first = min(report.at // self.block_size, self.bits)
            cut = span(first, self.bits) if report.at < self.file_size else 0
            return Effect(cut, report.at != self.file_size)
        first = report.at // self.block_size
        # One of no bytes counts for the block that it lies in, and for none between two blocks.
        end = -(-(report.at + report.length) // self.block_size)
        return Effect(span(min(first, self.bits), min(end, self.bits)), end > self.bits)


@dataclass(frozen=True)
class State:
    """A bitmap file as it lies on the disk, or in the file cache of a service that has it loaded."""
    shape: Shape
    closed_cleanly: bool
    effect: Effect

    @property
    def looks_clean(self):
        return self.closed_cleanly and not self.effect.unreliable


def read_state(data, has_mark_beside=False):
    """None for what is no whole bitmap. A mark of missed changes beside the file says what its header
    would: that it cannot be trusted."""
    if len(data) < HEADER_BYTES or struct.unpack_from("<I", data)[0] != MAGIC:
        return None
    block_size, = struct.unpack_from("<I", data, AT_BLOCK_SIZE)
    size, = struct.unpack_from("<I", data, AT_BITMAP_SIZE)
    file_size, = struct.unpack_from("<Q", data, AT_FILE_SIZE)
    if block_size == 0 or len(data) < HEADER_BYTES + size:
        return None
    bits = int.from_bytes(data[HEADER_BYTES:HEADER_BYTES + size], "little")
    unreliable = has_mark_beside or data[AT_UNRELIABLE] != 0
    return State(Shape(block_size, file_size, 8 * size), data[AT_CLOSED_CLEANLY] == 1,
                 Effect(bits, data[AT_SIZE_CHANGED] != 0, unreliable))


@dataclass
class Bitmap:
    """One bitmap file. `certain`: what was reported while it stood; `possible`: this and what may have
    reached it, which is all that it may hold."""
    name: str
    shape: Shape
    certain: Effect = Effect()
    possible: Effect = Effect()
    bitmap_id: int = 0
    wanted: bool = True         # else its deletion was asked for: it may be there or not
    was_unreliable: bool = False
    left_behind: bool = False   # by a kill, and not loaded since

    def report(self, report):
        effect = self.shape.effect(report)
        self.certain |= effect
        self.possible |= effect

    def may_get(self, report):
        self.possible |= self.shape.effect(report)

    def may_be_distrusted(self):
        """For another reason than a report's."""
        self.possible |= Effect(unreliable=True)


@dataclass
class File:
    """A tracked file. `tracked` is None when a call that changes it was cut off by a kill."""
    volume: str
    file_id: int
    path: str
    size: int
    tracked: bool = True
    bitmaps: dict = field(default_factory=dict)   # by name
    under_way: list = field(default_factory=list)  # reports that the service may not have come to yet

    def report(self, report):
        """One that the driver has taken."""
        self.under_way.append(report)
        for bitmap in self.bitmaps.values():
            bitmap.report(report)

    def change_unseen(self, report):
        """A change while the file is not tracked: a bitmap that comes back later lacks it."""
        for bitmap in self.bitmaps.values():
            bitmap.report(report)

    def add(self, bitmap):
        """A bitmap that is new: what is under way may reach it or not."""
        for report in self.under_way:
            bitmap.may_get(report)
        self.bitmaps[bitmap.name] = bitmap
        return bitmap

    def settle(self):
        """The service has come to everything that was reported."""
        self.under_way.clear()
