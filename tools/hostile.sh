#!/usr/bin/env bash
# Sends malformed requests to the RPC server over TCP and judges what it does (docs/reliability.md).
#
#   tools/hostile.sh [COUNT] [--seed SEED]
#
# Prints the seed, and rate, memory, file descriptors and threads as it goes on; ends non-zero when the
# server stops answering proper clients or keeps something of what it was sent.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

tools/install-packages.sh
cmake --preset mingw >/dev/null
cmake --build --preset mingw --target rpc_test_server driversim simhook zel_simulated_fltlib >/dev/null
exec /usr/bin/python3 tests/e2e/hostile_run.py "$@"
