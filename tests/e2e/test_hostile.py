"""Clients that send what no proper client sends: the service answers them with a fault or drops
them, keeps serving the others, and keeps nothing of them."""

import contextlib
import struct

from hostile import Hostile, VOLUME
from rpc_server import process_state
from wine import wait_until
from wire import RESPONSE, Wire, request_packet
from zel_client import (COPY_BITMAP, LIST_FILES, NO_CONTEXT, SYNCHRONIZE_BITMAPS,
                        marshal_list_files)

REQUESTS = 12_000
SEED = 20_260_101
MAX_LISTS = 1000  # of one client
TOO_MANY = 1450


def open_lists(server, count):
    """The codes of as many first calls of enumerations on one connection."""
    with Wire(server.port) as wire:
        assert wire.bind()
        answers = [wire.call(LIST_FILES, marshal_list_files(NO_CONTEXT, 100))[1] for _ in range(count)]
    return [struct.unpack("<I", answer[-4:])[0] for answer in answers]


def test_client_has_a_bound_of_enumerations(rpc_server):
    with rpc_server.client() as client:
        assert client.start_tracking2("C:\\some\\file", VOLUME, 7, 4096, 4096)[0] == 0
    assert open_lists(rpc_server, MAX_LISTS + 3) == [0] * MAX_LISTS + [TOO_MANY] * 3
    # Those of a connection that has ended count no more.
    wait_until(lambda: open_lists(rpc_server, 1) == [0], "there is room again", pause_s=0.2)


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
    memory, files, threads = rpc_server.settled_state()

    hostile = Hostile(rpc_server.port, SEED + 1)
    hostile.run(REQUESTS)
    print(hostile.sent, hostile.outcomes)
    assert sum(hostile.sent.values()) == REQUESTS
    assert hostile.outcomes["silent"] == 0
    assert hostile.outcomes["fault"] > REQUESTS // 2

    assert rpc_server.alive()
    _, files_after, threads_after = rpc_server.settled_state()
    assert hostile.sent["abandoned_list"] > 250 and hostile.sent["stolen_context"] > 1000
    wait_until(lambda: open_lists(rpc_server, MAX_LISTS) == [0] * MAX_LISTS,
               "the lists that were given up are gone", timeout_s=60, pause_s=1)
    wait_until(lambda: rpc_server.state()[0] - memory < 6000,  # KiB
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
        memory, files, threads = rpc_server.settled_state()
        die(15)
        assert client.copy_bitmap(info.bitmap_id)[0] == 0
        assert client.delete_bitmap(info.bitmap_id) == 0
        # It is not deleted before the last pin has gone.
        wait_until(lambda: not bitmap.exists(), "the bitmap file is deleted")
    wait_until(lambda: rpc_server.state()[0] - memory < 20_000, "the memory of the copies",
               timeout_s=60)  # KiB; two copies at most
    _, files_after, threads_after = rpc_server.settled_state()
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
