"""Seeded malformed requests against the RPC service, and what must be true after them."""

import random
import struct
import uuid
from collections import Counter

import zel_client as zel
from wire import FAULT, FIRST, LAST, REQUEST, RESPONSE, Wire, ZEL, bind_packet, packet, request_packet

VOLUME = uuid.UUID("01234567-89ab-cdef-0123-456789abcdef")
PATH = "C:\\hostile\\path"

# One proper request for each operation. None changes anything: the files are too small to be
# tracked, missing, or unknown.
PROPER = {
    zel.PING: b"",
    zel.LIST_FILES: zel.marshal_list_files(zel.NO_CONTEXT, 100),
    zel.LIST_BITMAPS: zel.marshal_list_bitmaps(VOLUME, 7, zel.NO_CONTEXT, 100),
    zel.COPY_BITMAP: struct.pack("<Q", 7),
    zel.START_TRACKING: zel.Request().string(PATH).put("I", 4096).bytes,
    zel.START_TRACKING2: zel.marshal_start_tracking2(PATH, VOLUME, 7, 0, 4096),
    zel.STOP_TRACKING: zel.Request().string(PATH).bytes,
    zel.DELETE_BITMAP: struct.pack("<Q", 7),
    zel.SYNCHRONIZE_BITMAPS: struct.pack("<Q", 7),
    zel.GET_DRIVER_STATUS: b"",
    zel.GET_TRACKED_FILES: b"",
}
WITH_STRING = (zel.START_TRACKING, zel.START_TRACKING2, zel.STOP_TRACKING)
# In a request of StartTracking2: behind the string's counts, its units, the GUID and the FileId.
FILE_SIZE_AT = PROPER[zel.START_TRACKING2].index(struct.pack("<QQ", 7, 0)) + 8
COUNTS = (0, 1, 2, 15, 17, 1000, 65535, 65536, 0x3FFFFFFF, 0x40000000, 0x7FFFFFFF, 0x80000000,
          0xFFFFFFFE, 0xFFFFFFFF)


class Hostile:
    """Sends malformed requests; `sent` counts them by their kind."""

    def __init__(self, port, seed):
        self.port = port
        self.random = random.Random(seed)
        self.sent = Counter()
        self.outcomes = Counter()
        self.connection = None
        self.idle = []

    def run(self, requests):
        kinds = [self.truncated, self.oversized, self.unterminated, self.counts, self.mutated,
                 self.foreign_context, self.stolen_context, self.random_stub] * 4
        kinds += [self.no_operation, self.wrong_interface, self.random_bytes, self.broken_header, self.unfinished,
                  self.dies_before_the_answer, self.abandoned_list, self.says_nothing]
        while sum(self.sent.values()) < requests:
            kind = self.random.choice(kinds)
            self.sent[kind.__name__] += 1
            kind()
        self.close()

    def disconnect(self):
        if self.connection:
            self.connection.socket.close()
            self.connection = None

    def close(self):
        self.disconnect()
        for idle in self.idle:
            idle.socket.close()
        self.idle = []

    # Malformed calls on a proper connection: the service answers, with a fault or a code, or ends
    # the connection.

    def call(self, operation, stub):
        try:
            if self.connection is None:
                self.connection = Wire(self.port)
                assert self.connection.bind()
            kind, _ = self.connection.call(operation, stub)
            assert kind in (RESPONSE, FAULT), kind
            self.outcomes["fault" if kind == FAULT else "answer"] += 1
        except ConnectionError:
            self.outcomes["closed"] += 1
            self.disconnect()
        except TimeoutError:
            self.outcomes["silent"] += 1
            self.disconnect()

    def any_operation(self):
        return self.random.choice([operation for operation in PROPER if PROPER[operation]])

    def truncated(self):
        operation = self.any_operation()
        stub = PROPER[operation]
        self.call(operation, stub[:self.random.randrange(len(stub))])

    def oversized(self):
        operation = self.random.choice(list(PROPER))
        self.call(operation, PROPER[operation] + self.random.randbytes(self.random.randrange(1, 3000)))

    def unterminated(self):
        operation = self.random.choice(WITH_STRING)
        stub = bytearray(PROPER[operation])
        end = 12 + 2 * len(PATH)
        stub[end:end + 2] = b"xx"
        self.call(operation, bytes(stub))

    def counts(self):
        """A string whose maximum, first and actual counts say something else than its length."""
        operation = self.random.choice(WITH_STRING)
        stub = bytearray(PROPER[operation])
        for field in self.random.sample((0, 4, 8), self.random.randint(1, 3)):
            struct.pack_into("<I", stub, field, self.random.choice(COUNTS))
        self.call(operation, bytes(stub))

    def foreign_context(self):
        context = struct.pack("<I", self.random.choice((0, 1, 0xFFFFFFFF)))
        context += self.random.randbytes(16)
        if self.random.random() < 0.5:
            self.call(zel.LIST_FILES, zel.marshal_list_files(context, 100))
        else:
            self.call(zel.LIST_BITMAPS, zel.marshal_list_bitmaps(VOLUME, 7, context, 100))

    def mutated(self):
        """Some bytes or numbers of a proper request are others. A size stays that of a file which is
        too small to be tracked."""
        operation = self.any_operation()
        stub = bytearray(PROPER[operation])
        for _ in range(self.random.randint(1, 4)):
            at = self.random.randrange(len(stub))
            if self.random.random() < 0.5:
                stub[at] ^= 1 << self.random.randrange(8)
            else:
                number = struct.pack("<I", self.random.choice(COUNTS))
                stub[at:at + 4] = number[:len(stub) - at]
        if operation == zel.START_TRACKING2:
            stub[FILE_SIZE_AT:FILE_SIZE_AT + 8] = struct.pack("<Q", self.random.randrange(4096))
        self.call(operation, bytes(stub))

    def stolen_context(self):
        """An enumeration that another connection has begun, as a client of its own."""
        with Wire(self.port) as owner:
            assert owner.bind()
            kind, answer = owner.call(zel.LIST_FILES, PROPER[zel.LIST_FILES])
            assert kind == RESPONSE
            context = answer[:20]
            if self.random.random() < 0.5:
                context = bytearray(context)
                context[self.random.randrange(20)] ^= 1 << self.random.randrange(8)
            self.call(zel.LIST_FILES, zel.marshal_list_files(bytes(context), 100))

    def random_stub(self):
        self.call(self.random.choice((zel.LIST_FILES, zel.LIST_BITMAPS, zel.START_TRACKING,
                                      zel.STOP_TRACKING)),
                  self.random.randbytes(self.random.randrange(200)))

    # Malformed connections: each has its own, whose answers nobody reads.

    def no_operation(self):
        """The number behind the last; Wine answers it twice."""
        with Wire(self.port) as wire:
            assert wire.bind()
            kind, _ = wire.call(11, self.random.randbytes(self.random.randrange(100)))
            assert kind == FAULT

    def wrong_interface(self):
        with Wire(self.port) as wire:
            interface = self.random.choice([(ZEL[0], 3, 1), (ZEL[0], 4, 0), (ZEL[0], 2, 0),
                                            (str(uuid.UUID(int=self.random.getrandbits(128))), 3, 0)])
            assert not wire.bind(interface), interface

    def random_bytes(self):
        with Wire(self.port) as wire:
            wire.send(self.random.randbytes(self.random.randrange(1, 300)))
            wire.finish()

    def broken_header(self):
        with Wire(self.port) as wire:
            wire.send(bind_packet())
            wire.receive()
            body = struct.pack("<IHH", 0, 0, 0)
            wire.send(self.random.choice((
                packet(REQUEST, body, length=self.random.choice((0, 15, 16, 23, 40, 65535))),
                packet(REQUEST, body, version=(4, 0)),
                packet(self.random.choice((1, 4, 9, 14, 16, 20, 77, 255)), body),
                packet(REQUEST, body, auth=self.random.choice((1, 8, 16, 65535))),
                packet(REQUEST, body[:self.random.randrange(8)]),
                packet(REQUEST, body, flags=0),
                packet(REQUEST, body, flags=LAST),
            )))
            wire.finish()

    def unfinished(self):
        """A first fragment without the others, or a piece of one."""
        with Wire(self.port) as wire:
            wire.send(bind_packet())
            wire.receive()
            stub = self.random.randbytes(100)
            sent = request_packet(self.any_operation(), stub, flags=FIRST)
            wire.send(sent[:self.random.choice((5, 16, 30, len(sent)))])
            wire.finish()

    def dies_before_the_answer(self):
        operation = self.random.choice(list(PROPER))
        with Wire(self.port) as wire:
            wire.send(bind_packet())
            wire.receive()
            wire.send(request_packet(operation, PROPER[operation]))

    def abandoned_list(self):
        with Wire(self.port) as wire:
            assert wire.bind()
            kind, _ = wire.call(zel.LIST_FILES, PROPER[zel.LIST_FILES])
            assert kind == RESPONSE

    def says_nothing(self):
        """Keeps up to 200 connections open that send nothing."""
        self.idle.append(Wire(self.port))
        if len(self.idle) > 200:
            self.idle.pop(0).socket.close()
