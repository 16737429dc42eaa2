"""Bitmap files as docs/file-format.md has them, put together and read without the product's code."""

import struct
import uuid

HEADER = struct.Struct("<IHH16sQQQQIBBBBIIQQQ")
CLOSED_CLEANLY, SIZE_CHANGED, UNRELIABLE = 0x3C, 0x3E, 0x3F


def bitmap_bytes(*, volume, file_id, file_size, block_size, changed=(), created=0x01dc92bf4c8a6d00,
                 closed=1, size_changed=0, unreliable=0, bitmap_id=0x000500000001a9f0):
    """`changed`: the numbers of the blocks whose bits are set."""
    blocks = -(-file_size // block_size)
    bits = bytearray(-(-blocks // 8))
    for block in changed:
        bits[block // 8] |= 1 << block % 8
    header = HEADER.pack(0x624C455A, 512, 22, uuid.UUID(volume).bytes_le, file_id, created, created,
                         created, block_size, closed, 0, size_changed, unreliable, len(bits), 0,
                         file_size, bitmap_id, created)
    return header.ljust(512, b"\0") + bytes(bits)


def changed_ranges(bitmap, size):
    """(offset, length) of what may differ in a file that has `size` bytes now, merged: the blocks with
    their bits set, and all behind the size that the bitmap was made for."""
    fields = HEADER.unpack_from(bitmap)
    block_size, made_for, bits = fields[8], fields[15], bitmap[512:]
    pieces = [(block * block_size, min((block + 1) * block_size, made_for, size))
              for block in range(-(-made_for // block_size)) if bits[block // 8] >> block % 8 & 1]
    pieces.append((made_for, size))
    ranges = []
    for begin, end in pieces:
        if ranges and begin < end and ranges[-1][1] == begin:
            ranges[-1] = ranges[-1][0], end
        elif begin < end:
            ranges.append((begin, end))
    return [(begin, end - begin) for begin, end in ranges]
