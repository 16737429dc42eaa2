#!/usr/bin/env bash
# Kills the service again and again and judges what it left (docs/reliability.md).
#
#   tools/crash.sh [ROUNDS] [--seed SEED] [--history NUMBER] [--go-on] [--workers N]
#
# Prints the seed, counts for each kind of kill, and the first violation with what it takes to see it
# again; ends non-zero with one.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

tools/install-packages.sh
cmake --preset mingw >/dev/null
cmake --build --preset mingw --target zelservice driversim pipehook simhook \
  zel_simulated_fltlib crash_probe >/dev/null
exec /usr/bin/python3 tests/crash/crash.py "$@"
