#!/usr/bin/env bash
# Runs a fuzz target for long.
#
#   tools/fuzz.sh [NAME] [RUNS]      every target, or one; 2,000,000 runs each unless told
#
# Finds grow the corpus under build/fuzz/NAME; a crash leaves its input there and ends non-zero.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

cmake --preset native-asan >/dev/null
cmake --build --preset native-asan >/dev/null
runs=${2:-2000000}
for target in build/native-asan/bin/${1:-*}_fuzz; do
  name=$(basename "$target" _fuzz)
  mkdir -p "build/fuzz/$name"
  echo "== $name: $runs runs"
  "$target" -runs="$runs" -max_len=65536 -print_final_stats=1 -verbosity=0 \
    -artifact_prefix="build/fuzz/$name/" "build/fuzz/$name" "tests/fuzz/corpus/$name"
done
