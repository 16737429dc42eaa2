"""A client of the RPC interface that shares nothing with the project's own: it marshals by hand from
rpc/zel.idl, over impacket's MS-RPC on ncacn_ip_tcp."""

import struct
import uuid
from dataclasses import dataclass

from impacket.dcerpc.v5 import transport
from impacket.dcerpc.v5.rpcrt import DCERPCException
from impacket.uuid import uuidtup_to_bin

INTERFACE = ("7b941e5b-f53f-415d-aacb-ad7973d9e5de", "3.0")
NO_CONTEXT = bytes(20)
TIMEOUT_S = 20

ERROR_FILE_NOT_FOUND = 2
ERROR_INSUFFICIENT_BUFFER = 122
ERROR_NO_MORE_ITEMS = 259
ERROR_MEDIA_CHANGED = 1110
ERROR_NOT_FOUND = 1168

(PING, LIST_FILES, LIST_BITMAPS, COPY_BITMAP, START_TRACKING, START_TRACKING2, STOP_TRACKING,
 DELETE_BITMAP, SYNCHRONIZE_BITMAPS, GET_DRIVER_STATUS, GET_TRACKED_FILES) = range(11)


class Fault(Exception):
    """The call ended in an RPC exception instead of an answer."""


class Request:
    """Parameters as NDR has them: little-endian, each aligned to its size."""

    def __init__(self):
        self.bytes = b""

    def put(self, code, value):
        self.align(struct.calcsize(code))
        self.bytes += struct.pack("<" + code, value)
        return self

    def align(self, size):
        self.bytes += bytes(-len(self.bytes) % size)
        return self

    def raw(self, data, alignment):
        self.align(alignment)
        self.bytes += data
        return self

    def string(self, text):
        units = text.encode("utf-16-le") + b"\0\0"
        count = len(units) // 2
        self.put("I", count).put("I", 0).put("I", count)
        self.bytes += units
        return self


class Answer:
    def __init__(self, data):
        self.data = data
        self.at = 0

    def take(self, size, alignment=1):
        self.at += -self.at % alignment
        assert self.at + size <= len(self.data), "the answer is too short"
        piece = self.data[self.at:self.at + size]
        self.at += size
        return piece

    def get(self, code):
        size = struct.calcsize(code)
        return struct.unpack("<" + code, self.take(size, size))[0]

    def guid(self):
        return uuid.UUID(bytes_le=self.take(16, 4))

    def string(self, room):
        """A string whose sender had `room` characters for it."""
        most, first, count = self.get("I"), self.get("I"), self.get("I")
        assert (most, first) == (room, 0) and 1 <= count <= room
        units = self.take(2 * count)
        assert units.endswith(b"\0\0")
        return units[:-2].decode("utf-16-le", "surrogatepass")

    def pipe(self):
        """The chunks of a pipe."""
        chunks = []
        while count := self.get("I"):
            chunks.append(self.take(count))
        return chunks

    def end(self):
        """The operation's code, the last of every answer."""
        code = self.get("I")
        assert self.at == len(self.data), "there is more behind the code"
        return code


@dataclass
class BitmapInfo:
    file_size: int
    creation_time: int
    block_size: int
    bitmap_id: int
    volume_guid: uuid.UUID
    file_id: int

    @staticmethod
    def read(answer):
        fields = struct.unpack("<I4xQI4xQ16sQ", answer.take(56, 8))
        return BitmapInfo(*fields[:4], uuid.UUID(bytes_le=fields[4]), fields[5])


def marshal_start_tracking2(path, volume_guid, file_id, file_size, block_size):
    request = Request().string(path).raw(volume_guid.bytes_le, 4)
    return request.put("Q", file_id).put("Q", file_size).put("I", block_size).bytes


def marshal_list_files(context, room):
    return Request().raw(context, 4).put("H", room).bytes


def marshal_list_bitmaps(volume_guid, file_id, context, room):
    request = Request().raw(volume_guid.bytes_le, 4).put("Q", file_id)
    return request.raw(context, 4).put("H", room).bytes


class ZelClient:
    """One connection. Operations answer the service's code first, then what came with it."""

    def __init__(self, port):
        self.transport = transport.DCERPCTransportFactory(f"ncacn_ip_tcp:127.0.0.1[{port}]")
        self.transport.set_connect_timeout(TIMEOUT_S)
        self.dce = self.transport.get_dce_rpc()
        self.dce.connect()
        self.transport.recv = self._receive
        self.dce.bind(uuidtup_to_bin(INTERFACE))

    def _receive(self, force_recv=0, count=0):
        """The transport's own reads a closed connection for ever."""
        received = b""
        while not received or len(received) < count:
            piece = self.transport.get_socket().recv((count - len(received)) or 8192)
            if not piece:
                raise ConnectionError("the service closed the connection")
            received += piece
        return received

    def close(self):
        self.transport.get_socket().close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def call(self, operation, stub=b""):
        try:
            self.dce.call(operation, stub)
            return Answer(self.dce.recv())
        except DCERPCException as fault:
            raise Fault(str(fault)) from fault

    def ping(self):
        return self.call(PING).end()

    def list_files(self, context, room=600):
        """(code, context, file id, volume, path)"""
        answer = self.call(LIST_FILES, marshal_list_files(context, room))
        context, file_id, volume = answer.take(20, 4), answer.get("Q"), answer.guid()
        path = answer.string(room)
        return answer.end(), context, file_id, volume, path

    def list_bitmaps(self, volume_guid, file_id, context, room=600):
        """(code, context, info, name)"""
        answer = self.call(LIST_BITMAPS,
                           marshal_list_bitmaps(volume_guid, file_id, context, room))
        context, info, name = answer.take(20, 4), BitmapInfo.read(answer), answer.string(room)
        return answer.end(), context, info, name

    def copy_bitmap(self, bitmap_id):
        """(code, chunks)"""
        answer = self.call(COPY_BITMAP, Request().put("Q", bitmap_id).bytes)
        chunks = answer.pipe()
        return answer.end(), chunks

    def start_tracking(self, path, block_size):
        """(code, info)"""
        answer = self.call(START_TRACKING, Request().string(path).put("I", block_size).bytes)
        info = BitmapInfo.read(answer)
        return answer.end(), info

    def start_tracking2(self, path, volume_guid, file_id, file_size, block_size):
        """(code, info)"""
        answer = self.call(START_TRACKING2, marshal_start_tracking2(path, volume_guid, file_id,
                                                                   file_size, block_size))
        info = BitmapInfo.read(answer)
        return answer.end(), info

    def stop_tracking(self, path):
        return self.call(STOP_TRACKING, Request().string(path).bytes).end()

    def delete_bitmap(self, bitmap_id):
        return self.call(DELETE_BITMAP, Request().put("Q", bitmap_id).bytes).end()

    def synchronize_bitmaps(self, request_time):
        return self.call(SYNCHRONIZE_BITMAPS, Request().put("Q", request_time).bytes).end()

    def get_driver_status(self):
        return self.call(GET_DRIVER_STATUS).end()

    def get_tracked_files(self):
        """(code, the bytes of the stream)"""
        answer = self.call(GET_TRACKED_FILES)
        stream = b"".join(answer.pipe())
        return answer.end(), stream


def read_tracked_files(stream):
    """[(volume, file id, path, [(file size, creation time, bitmap id)])] of a stream."""
    answer = Answer(stream)

    def unaligned(code):
        return struct.unpack("<" + code, answer.take(struct.calcsize("<" + code)))

    files = []
    for _ in range(unaligned("I")[0]):
        volume = uuid.UUID(bytes_le=answer.take(16))
        file_id, = unaligned("Q")
        units = b""
        while (unit := answer.take(2)) != b"\0\0":
            units += unit
        bitmaps = [unaligned("IQQ") for _ in range(unaligned("I")[0])]
        files.append((volume, file_id, units.decode("utf-16-le", "surrogatepass"), bitmaps))
    assert answer.at == len(stream)
    return files
