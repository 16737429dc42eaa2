"""The MS-RPC connection protocol byte by byte, for what no proper client sends."""

import socket
import struct
import uuid

from zel_client import INTERFACE

REQUEST, RESPONSE, FAULT, BIND, BIND_ACK, BIND_NAK = 0, 2, 3, 11, 12, 13
FIRST, LAST = 1, 2
NDR = ("8a885d04-1ceb-11c9-9fe8-08002b104860", 2, 0)
ZEL = (INTERFACE[0], 3, 0)
TIMEOUT_S = 30


def syntax(identifier, major, minor):
    return uuid.UUID(identifier).bytes_le + struct.pack("<HH", major, minor)


def packet(kind, body, flags=FIRST | LAST, call=1, version=(5, 0), length=None, auth=0):
    size = 16 + len(body) if length is None else length
    return struct.pack("<BBBB4sHHI", *version, kind, flags, b"\x10\0\0\0", size & 0xFFFF, auth,
                       call) + body


def bind_packet(interface=ZEL, transfer=NDR):
    body = struct.pack("<HHIB3xHBx", 4280, 4280, 0, 1, 0, 1)
    return packet(BIND, body + syntax(*interface) + syntax(*transfer))


def request_packet(operation, stub, flags=FIRST | LAST, call=1):
    return packet(REQUEST, struct.pack("<IHH", len(stub), 0, operation) + stub, flags, call)


class Wire:
    """A connection to the service's TCP endpoint. ConnectionError when the service ends it."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=TIMEOUT_S)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def _receive(self, size):
        received = b""
        while len(received) < size:
            piece = self.socket.recv(size - len(received))
            if not piece:
                raise ConnectionError("closed by the service")
            received += piece
        return received

    def wait_as_long_as(self, seconds):
        self.socket.settimeout(seconds)

    def receive_fragment(self):
        """(kind, flags, what follows the header)"""
        header = self._receive(16)
        body = self._receive(struct.unpack_from("<H", header, 8)[0] - 16)
        return header[2], header[3], body

    def receive(self):
        """The next answer: (kind, what follows the header, fragments put together)."""
        answer = b""
        while True:
            kind, flags, body = self.receive_fragment()
            answer += body[8:] if kind == RESPONSE else body
            if flags & LAST:
                return kind, answer

    def finish(self):
        """Closes this end and waits until the service has closed the other, which keeps the
        connections that nobody has accepted yet few."""
        try:
            self.socket.shutdown(socket.SHUT_WR)
            while self.socket.recv(4096):
                pass
        except OSError:  # the service was faster
            pass

    def bind(self, interface=ZEL, transfer=NDR):
        """Whether the service takes the interface."""
        self.send(bind_packet(interface, transfer))
        kind, body = self.receive()
        if kind != BIND_ACK:
            return False
        address = struct.unpack_from("<H", body, 8)[0]
        results = 10 + address + -(10 + address) % 4
        return struct.unpack_from("<H", body, results + 4)[0] == 0

    def call(self, operation, stub):
        self.send(request_packet(operation, stub))
        return self.receive()
