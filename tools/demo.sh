#!/usr/bin/env bash
# The main job on real input: a database that SQLite works on, the service that sees which of its
# blocks change, and a copy that is brought up to date from those blocks alone. The service runs on
# Wine and the driver is the simulated one. Installs what is missing on Debian 12 first.
#
#   tools/demo.sh          ends non-zero at the first step that does not do what it should
#
# Everything is made below build/. What the programs said stays in build/demo/.
set -Eeuo pipefail
shopt -s inherit_errexit
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD

bin=$root/build/mingw/bin
work=$root/build/demo
export ZEL_WINEPREFIX=$root/build/wine/demo
drive_c=$ZEL_WINEPREFIX/drive_c
database='C:\data\archive.db'
copy='C:\data\copy.db'

say() { printf '\n== %s\n' "$*"; }

fail() {
  echo "demo: error: $*" >&2
  exit 1
}

remove_prefix() {
  tools/wine-run.sh --stop >"$work/stop.log" 2>&1 || true
  rm -rf "$ZEL_WINEPREFIX" "$ZEL_WINEPREFIX".{lock,log}
}

leave_nothing_running() {
  local status=$?
  trap - EXIT
  wait
  if [ "$status" -ne 0 ]; then
    tail -n 3 "$work/failed.log" 2>/dev/null || true
    echo "demo: FAILED; what the programs said is in build/demo/"
  fi
  cp "$drive_c/agent/log/zelservice.log" "$work/" 2>/dev/null || true
  remove_prefix
  exit "$status"
}

# --- What is built

declare -A job=()

begin() {  # NAME COMMAND...: runs it beside the others; what it prints goes to build/demo/NAME.log
  local name=$1
  shift
  "$@" >"$work/$name.log" 2>&1 </dev/null &
  job[$name]=$!
}

finish() {  # NAME: waits for it
  wait "${job[$1]}" || { tail -n 20 "$work/$1.log"; fail "$1 failed"; }
}

build_product() {
  cmake --preset mingw
  cmake --build --preset mingw --target zelservice zelctl driversim pipehook zel_simulated_fltlib simhook
}

# --- Programs in the prefix

wine_run() {  # what ends with an error is named in build/demo/failed.log
  local status=0
  tools/wine-run.sh "$@" </dev/null || status=$?
  [ "$status" -eq 0 ] || echo "ended with $status at ${SECONDS} s: $*" >>"$work/failed.log"
  return "$status"
}

# Wine's runtime knows no pipes: the simulator carries out the calls that have one.
zelctl() {
  local dos=Z:${bin//\//\\}
  wine_run "$dos\\simulator\\driversim.exe" client -- "$dos\\zelctl.exe" "$@"
}

sqlite() {  # SCRIPT: SQLite works on the database, unseen by the driver
  tools/wine-run.sh 'C:\data\sqlite3.exe' -bail "$database" <"demo/$1" >>"$work/sqlite.log" 2>&1
}

sqlite_seen() {  # SCRIPT: the same where the driver sees every write
  tools/wine-run.sh 'C:\agent\driversim.exe' run -- 'C:\data\sqlite3.exe' -bail "$database" \
    <"demo/$1" >>"$work/sqlite.log" 2>&1
}

service_state() {  # NAME: RUNNING, STOPPED, ...; nothing when there is no such service
  wine_run sc query "$1" | sed -nE 's/^ *STATE *: [0-9]+ +([A-Z_]+).*/\1/p'
}

service_process() {  # the Linux process of the service of this prefix
  local process
  for process in $(pgrep -f '^C:.agent.zelservice\.exe'); do
    if grep -qszxF "WINEPREFIX=$ZEL_WINEPREFIX" "/proc/$process/environ"; then echo "$process"; fi
  done
}

await() {  # WHAT COMMAND...: tries the command until it succeeds, for a minute
  local what=$1 deadline=$((SECONDS + 60))
  shift
  until "$@"; do
    [ $SECONDS -lt $deadline ] || fail "waited in vain: $what"
    sleep 0.05
  done
}

is_running() { [ "$(service_state ZelService)" = RUNNING ]; }
is_absent() { [ -z "$(service_state "$1")" ]; }
has_ended() { [ -z "$(service_process)" ]; }

start_service() {
  wine_run sc start ZelService >/dev/null
  await "the service runs" is_running
}

stop_service() {
  wine_run sc stop ZelService >/dev/null
  await "the service has ended" has_ended
}

install_service() {
  mkdir -p "$drive_c"/agent/{log,config} "$drive_c/data"
  echo "zelservicelog = info" >"$drive_c/agent/config/plexor.conf"
  cp "$bin/zelservice.exe" "$bin"/simulator/{fltlib.dll,driversim.exe,simhook.dll} "$drive_c/agent"
  cp build/sqlite/sqlite3.exe "$drive_c/data"
  wine_run reg add 'HKLM\Software\Velmora Inc\DruAgent' /v InstallDirectory /d 'C:\agent' /f
  wine_run sc create VelmoraActivityMonitor \
    binPath= 'C:\agent\driversim.exe' type= own start= demand
  wine_run 'C:\agent\zelservice.exe' -install
  wine_run sc query ZelService  # the program itself ends with 0 whatever happened
}

# --- What is looked at

linux_path() {  # a path on drive C
  local path=${1#C:\\}
  echo "$drive_c/${path//\\//}"
}

size_of() { stat -c %s "$(linux_path "$1")"; }

mebibytes() { awk -v bytes="$1" 'BEGIN { printf "%.1f MiB", bytes / 1048576 }'; }

changed_bytes() {  # BITMAP
  zelctl show "$1" --json | /usr/bin/python3 -c 'import json, sys
print(json.load(sys.stdin)["changed"]["bytes"])'
}

check_equal() {
  cmp "$(linux_path "$database")" "$(linux_path "$copy")" || fail "the files differ"
  echo "compared by zelctl and by cmp: both files are equal, $(mebibytes "$(size_of "$copy")")"
}

# --- What an administrator does, shown as it is called

shown() {
  echo "\$ zelctl $*"
  zelctl "$@"
}

backup() {  # [OPTION]...: brings the copy up to date, makes it the first time; prints a line
  said=$(shown backup --from "$database" --to "$copy" --verify "$@")
  echo "$said"
  check_equal
  bitmap=$(zelctl bitmaps "$database" | cut -c1-18)  # the one that collects from now on
}

bring_copy_up_to_date() {
  backup
  [[ $said =~ incremental:\ read\ .*\(([0-9]+)\.[0-9]\ %\) ]] || fail "that should be incremental"
  [ "${BASH_REMATCH[1]}" -lt 25 ] || fail "that should be a small part"
}

# --- The demonstration

build() {
  say "Build: the service, zelctl, the simulated driver; SQLite's shell"
  begin prefix tools/wine-run.sh --start
  begin sqlite-shell tools/sqlite-shell.sh
  begin product build_product
  finish prefix
  finish sqlite-shell
  finish product
  built_in=$SECONDS
  SECONDS=0
  echo "done after $built_in s; what follows is counted from here on"
}

install_and_start() {
  say "Install and start the service; its driver is the simulated one"
  begin installation install_service
  finish installation
  start_service
  zelctl status
}

first_copy() {
  say "A database of SQLite's, and its first backup"
  sqlite fill.sql
  echo "$database: $(mebibytes "$(size_of "$database")")"
  backup
}

round_1() {
  say "Round 1: SQLite deletes, inserts and updates"
  sqlite_seen round1.sql
  shown show "$bitmap" --map
  bring_copy_up_to_date
}

round_2() {
  say "Round 2: SQLite deletes; the service is restarted; SQLite gives the free pages back"
  local before after size
  size=$(size_of "$database")
  sqlite_seen round2.sql
  before=$(changed_bytes "$bitmap")
  stop_service
  start_service
  after=$(changed_bytes "$bitmap")
  echo "changed before the restart: $before bytes; after it: $after bytes"
  [ "$before" -gt 0 ] || fail "the bitmap should have what was deleted"
  [ "$before" -eq "$after" ] || fail "the restart should keep the bitmap"
  sqlite_seen round2_vacuum.sql
  [ "$(size_of "$database")" -lt "$size" ] || fail "the database should have become smaller"
  bring_copy_up_to_date
}

round_3() {
  say "Round 3: SQLite inserts; the service is killed"
  local state copy_before refusal status=0
  sqlite_seen round3.sql
  kill -KILL "$(service_process)"
  await "the service is dead" has_ended
  start_service
  echo "\$ zelctl show $bitmap"
  state=$(zelctl show "$bitmap" | grep '^state')
  echo "$state"
  [[ $state == *UNRELIABLE* ]] || fail "the bitmap should be unreliable"
  copy_before=$(sha256sum "$(linux_path "$copy")")
  refusal=$(shown backup --from "$database" --to "$copy" 2>&1) || status=$?
  echo "$refusal"
  [ "$status" -eq 4 ] || fail "backup should end with 4, not with $status"
  [[ $refusal == *"is unreliable, changes may be missing"* ]] || fail "that is another reason"
  [ "$copy_before" = "$(sha256sum "$(linux_path "$copy")")" ] || fail "the copy should be untouched"
  echo "ended with exit code 4, the copy is untouched: a full pass begins anew"
  backup --full-if-needed
}

remove_all() {
  say "Remove everything"
  zelctl untrack --yes "$database"
  wine_run 'C:\agent\zelservice.exe' -remove
  await "the service has ended" has_ended
  wine_run 'C:\agent\driversim.exe' tell stop >/dev/null
  local name
  [ "$(service_state RpcSs)" = RUNNING ] || fail "the service manager should still answer"
  for name in ZelService VelmoraActivityMonitor; do
    await "$name is not installed any more" is_absent "$name"
    echo "sc query $name: no such service"
  done
}

main() {
  mkdir -p "$work"
  trap leave_nothing_running EXIT
  trap 'echo "demo: error: line $LINENO: $BASH_COMMAND" >&2' ERR
  rm -f "$work"/*.log
  remove_prefix  # what a run that was killed has left
  build
  install_and_start
  first_copy
  round_1
  round_2
  round_3
  remove_all
  say "All steps did what they should, in $SECONDS s; building took $built_in s before"
}

tools/install-packages.sh
SECONDS=0
# On a terminal Wine would draw with a console of its own.
main 2>&1 | cat
