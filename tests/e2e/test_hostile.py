"""Clients that send what no proper client sends: the service answers them with a fault or drops
them, keeps serving the others, and keeps nothing of them."""

from hostile import Hostile, VOLUME
from wire import Wire
from wine import wait_until

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
    memory_after, files_after, threads_after = settled_state(rpc_server)
    # KiB. The lists that were given up would make ten thousand.
    assert hostile.sent["abandoned_list"] > 330
    assert memory_after - memory < 6000
    assert files_after - files <= 20
    assert threads_after - threads <= 5


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
