#!/usr/bin/env bash
# Runs the benchmarks (all, or those named: tools/bench.sh log slow-disk) on Wine, in a quiet moment.
# Every figure stands beside a reference of the same run; ends non-zero when one misses its limit.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

tools/install-packages.sh
cmake --preset mingw >/dev/null
cmake --build --preset mingw >/dev/null
export ZEL_WINEPREFIX=$PWD/build/wine/bench
trap 'tools/wine-run.sh --stop' EXIT
tools/wine-run.sh --start
status=0
for name in "${@:-*}"; do
  name=${name//-/_}
  for program in build/mingw/bin/{,simulator/}${name}_bench.exe; do
    [ -e "$program" ] || continue
    echo "== $(basename "$program" _bench.exe)"
    tools/wine-run.sh "$program" || status=1
  done
  for program in bench/${name}_bench.py; do
    [ -e "$program" ] || continue
    echo "== $(basename "$program" _bench.py)"
    /usr/bin/python3 "$program" || status=1
  done
done
exit "$status"
