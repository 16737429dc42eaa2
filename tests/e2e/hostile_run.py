#!/usr/bin/env python3
"""A long run of malformed requests against the RPC server: tools/hostile.sh.

Prints counts, rate, memory, file descriptors and threads after each tenth, and ends non-zero when the
server does not answer a proper client in between, or keeps something of the requests."""

import argparse
import sys
import time
from collections import Counter

from hostile import VOLUME, Hostile
from rpc_server import RpcServer
from wine import Wine, wait_until

TENTHS = 10
# What the runtime's pool may still add after the first tenths, and the memory of what is under way.
MORE_MEMORY_KIB, MORE_FILES, MORE_THREADS = 6000, 60, 20


def track_files(server):
    """So that a list which is not freed would be seen."""
    with server.client() as client:
        for number in range(300):
            path = f"C:\\some\\longer\\path\\{number}"
            assert client.start_tracking2(path, VOLUME, number + 1, 4096, 4096)[0] == 0


def within_bounds(first, last):
    more = [after - before for before, after in zip(first, last)]
    return all(grown <= bound
               for grown, bound in zip(more, (MORE_MEMORY_KIB, MORE_FILES, MORE_THREADS)))


def run(server, count, seed):
    track_files(server)
    sent, outcomes, first = Counter(), Counter(), None
    begin = time.monotonic()
    print(f"seed {seed}\n{'requests':>9} {'per s':>6} {'KiB':>8} {'files':>6} {'threads':>7}")
    for tenth in range(TENTHS):
        hostile = Hostile(server.port, seed + tenth)
        hostile.run(count // TENTHS)
        sent += hostile.sent
        outcomes += hostile.outcomes
        assert server.alive()
        state = server.settled_state()
        total = sum(sent.values())
        rate = total / (time.monotonic() - begin)
        print(f"{total:9} {rate:6.0f} {state[0]:8} {state[1]:6} {state[2]:7}", flush=True)
        if tenth == 2:  # by then the runtime has made what it keeps for good
            first = state
    print(dict(sorted(sent.items())), dict(outcomes))
    assert outcomes["silent"] == 0, "a request was neither answered nor was its connection closed"
    wait_until(lambda: within_bounds(first, server.state()),
               f"{first} grows no further; it is {server.state()}", timeout_s=60)
    assert server.alive()


def main():
    parser = argparse.ArgumentParser(prog="hostile.sh")
    parser.add_argument("count", type=int, nargs="?", default=20_000)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    arguments = parser.parse_args()
    wine = Wine("hostile")
    wine.start()
    try:
        server = RpcServer(wine)
        run(server, arguments.count, arguments.seed)
        return server.stop()
    finally:
        wine.stop()


if __name__ == "__main__":
    sys.exit(main())
