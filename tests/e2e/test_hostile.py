"""Clients that send what no proper client sends: the service answers them with a fault or drops
them, keeps serving the others, and keeps nothing of them."""

import contextlib
import struct

from hostile import Hostile, VOLUME
from rpc_server import process_state
from wine import wait_until
from wire import RESPONSE, Wire, request_packet
from zel_client import COPY_BITMAP, SYNCHRONIZE_BITMAPS

REQUESTS = 12_000
SEED = 20_260_101


def settled_state(server):
    """The server's state once the connections that were closed are gone from it."""
    last = server.state()

    def unchanged():
        nonlocal last
        before, last = last, server.state()
        return before[1:] == last[1:]

    wait_until(unchanged, "the server has let go of its connections")
    return last


def test_malformed_requests_leave_the_service_as_it_was(rpc_server):
    with rpc_server.client() as client:  # so that a list that is not freed would be seen
        for number in range(300):
            path = f"C:\\some\\longer\\path\\{number}"
            assert client.start_tracking2(path, VOLUME, number + 1, 4096, 4096)[0] == 0
    # The first half makes what the runtime keeps for good: threads, and a heap for each.
    first = Hostile(rpc_server.port, SEED)
    for _ in range(200):
        first.says_nothing()
        first.no_operation()
    first.run(REQUESTS)
    memory, files, threads = settled_state(rpc_server)

    hostile = Hostile(rpc_server.port, SEED + 1)
    hostile.run(REQUESTS)
    print(hostile.sent, hostile.outcomes)
    assert sum(hostile.sent.values()) == REQUESTS
    assert hostile.outcomes["silent"] == 0
    assert hostile.outcomes["fault"] > REQUESTS // 2

    assert rpc_server.alive()
    _, files_after, threads_after = settled_state(rpc_server)
    # KiB. The lists that were given up would make ten thousand.
    assert hostile.sent["abandoned_list"] > 330
    wait_until(lambda: rpc_server.state()[0] - memory < 6000,
               "the memory of the lists that were given up", timeout_s=60)
    # The runtime's pool may have grown by some threads; requests of each kind are hundreds.
    assert files_after - files <= 60
    assert threads_after - threads <= 20


def test_200_connections_that_send_nothing_keep_nobody_out(rpc_server):
    silent = []
    for _ in range(200):
        silent.append(Wire(rpc_server.port))
        with Wire(rpc_server.port) as proper:
            assert proper.bind()
    assert rpc_server.alive()
    for connection in silent:
        connection.socket.close()
    assert rpc_server.alive()


def test_clients_that_die_inside_a_pipe_leave_no_pin_and_no_memory(rpc_server):
    length = 10 << 20
    with rpc_server.client() as client:
        _, info = client.start_tracking2("C:\\some\\file", VOLUME, 7, (length - 512) * 8 * 512, 512)
        bitmap, = (path for path in rpc_server.bitmap_files() if path.stat().st_size == length)

        def die(count):
            for _ in range(count):
                with Wire(rpc_server.port) as wire:
                    assert wire.bind()
                    wire.send(request_packet(COPY_BITMAP, struct.pack("<Q", info.bitmap_id)))
                    assert len(wire.receive_fragment()[2]) > 1000

        die(3)
        memory, files, threads = settled_state(rpc_server)
        die(15)
        assert client.copy_bitmap(info.bitmap_id)[0] == 0
        assert client.delete_bitmap(info.bitmap_id) == 0
        # It is not deleted before the last pin has gone.
        wait_until(lambda: not bitmap.exists(), "the bitmap file is deleted")
    wait_until(lambda: rpc_server.state()[0] - memory < 20_000, "the memory of the copies",
               timeout_s=60)  # KiB; two copies at most
    _, files_after, threads_after = settled_state(rpc_server)
    # The runtime's pool may have grown by some threads; requests of each kind are hundreds.
    assert files_after - files <= 60
    assert threads_after - threads <= 20


CALLS_AT_ONCE = 1234
# Wine's runtime has 500 threads for calls; the others wait until one of them is free.
RUNNING_AT_ONCE = 400


def test_1234_calls_at_once_are_all_answered(agent):
    """They wait for the driver, which answers nothing before the last of them was sent."""
    agent.install()
    agent.start()
    port = agent.port()
    process, = agent.processes()
    assert agent.tell_driver("hold") == "ok"
    with contextlib.ExitStack() as stack:
        connections = []
        for _ in range(CALLS_AT_ONCE):
            connections.append(stack.enter_context(Wire(port)))
            assert connections[-1].bind()  # the service accepts few at a time
        for connection in connections:
            connection.send(request_packet(SYNCHRONIZE_BITMAPS, struct.pack("<Q", agent.now())))
        wait_until(lambda: running_synchronizations(agent) >= RUNNING_AT_ONCE, "the calls run",
                   timeout_s=60)
        assert agent.tell_driver("release") == "ok"
        for connection in connections:
            connection.wait_as_long_as(60)
            assert connection.receive() == (RESPONSE, bytes(4))
    with agent.client() as client:
        assert client.ping() == 0
    wait_until(lambda: process_state(process)[2] < 100, "the threads of the calls end", timeout_s=60)


def running_synchronizations(agent):
    return agent.log_path.read_bytes().count(b"Synchronizing bitmaps to ")
