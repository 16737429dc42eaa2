#!/usr/bin/env bash
# Builds everything and runs every check, tools/demo.sh among them; installs what is missing on
# Debian 12 first.
#
#   tools/test.sh          all checks; ends with 'N passed, N failed' and non-zero on a failure
#
# Each step's whole output is in build/logs/; what failed is printed.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
tools/install-packages.sh || exit 1

logs=build/logs
mkdir -p "$logs"
rm -f "$logs"/*
passed=0
failed=0

leave_nothing_running() {
  [ -z "${pytest:-}" ] || kill "$pytest" 2>/dev/null
  tools/wine-run.sh --stop
  local prefix
  for prefix in build/wine/{e2e,e2e-installer,kit,crash-*}/; do
    ZEL_WINEPREFIX=$PWD/${prefix%/} tools/wine-run.sh --stop
  done
}
trap leave_nothing_running EXIT

count() {  # NAME PASSED FAILED
  passed=$((passed + $2))
  failed=$((failed + $3))
  printf '%-34s %5d passed %3d failed  %4ds\n' "$1" "$2" "$3" $((SECONDS - started))
  if [ "$3" -ne 0 ]; then
    grep -E '\*\*\*|[Ff]ailure|FAILED|[Ee]rror' "$logs/$1.log" | head -n 40
    tail -n 15 "$logs/$1.log"
    echo "  (the whole output: $logs/$1.log)"
  fi
}

check() {  # NAME COMMAND...: one check, passed when the command succeeds
  local name=$1
  shift
  started=$SECONDS
  if "$@" >"$logs/$name.log" 2>&1; then count "$name" 1 0; else count "$name" 0 1; fi
}

build() {  # PRESET: configures and builds
  check "build-$1" bash -c "cmake --preset $1 && cmake --build --preset $1"
}

run_ctest() {  # PRESET: every test of a built preset
  local name=test-$1 total bad
  started=$SECONDS
  ctest --preset "$1" -j2 >"$logs/$name.log" 2>&1
  read -r bad total < <(sed -nE 's/.* ([0-9]+) tests? failed out of ([0-9]+)/\1 \2/p' "$logs/$name.log")
  count "$name" $((${total:-0} - ${bad:-0})) "${bad:-1}"
}

# The shipped executables under the service control manager, in a Wine of their own, beside what
# follows: they wait more than they compute.
begin_pytest() {
  pytest_started=$SECONDS
  /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e >"$logs/test-e2e.log" 2>&1 &
  pytest=$!
}

finish_pytest() {
  local name=test-e2e good bad status=0
  wait "$pytest" || status=$?
  pytest=
  started=$pytest_started
  good=$(grep -oE '[0-9]+ passed' "$logs/$name.log" | tail -n 1 | cut -d' ' -f1)
  bad=$(grep -oE '[0-9]+ (failed|errors?)' "$logs/$name.log" | awk '{sum += $1} END {print sum + 0}')
  [ "$status" -ne 0 ] && [ "$bad" -eq 0 ] && bad=1
  count "$name" "${good:-0}" "$bad"
}

check clang-format bash -c \
  "git ls-files -co --exclude-standard -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror"
check floors tools/check_floors.py
build mingw
check package tools/package.sh
tools/wine-run.sh --start
begin_pytest
build mingw-clang
run_ctest mingw
check demo tools/demo.sh
finish_pytest
check crash-oracle /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/crash
check crash tools/crash.sh 100
check proving-kit /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/kit
build native-asan && run_ctest native-asan
build native-tsan && run_ctest native-tsan

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
