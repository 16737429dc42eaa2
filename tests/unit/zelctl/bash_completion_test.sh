#!/usr/bin/env bash
# Tries the completion script in the shell that it is for.
#
#   bash_completion_test.sh UNIT_TESTS
set -euo pipefail
script=$(mktemp)
trap 'rm -f "$script"' EXIT
ZEL_COMPLETION_FILE=$script "$1" --gtest_filter=CompletionTest.BashScriptIsWrittenForItsShell >/dev/null
# shellcheck disable=SC1090
source "$script"

offers() {  # WORD... : what is offered for the last of the words
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMPREPLY=()
  _zelctl
  echo "${COMPREPLY[*]}"
}
expect() {  # WANTED WORD...
  local wanted=$1 got
  shift
  got=$(offers "$@")
  [ "$got" = "$wanted" ] || { echo "for '$*': wanted '$wanted', got '$got'"; exit 1; }
}
expect "status sync show" zelctl s
expect "untrack" zelctl --json unt
expect "--block-size" zelctl track --bl
expect "--from --full --force-identity" zelctl apply --bitmap 0x1 --f
expect "powershell" zelctl completion p
expect "untrack" zelctl help unt
expect "" zelctl copy x
[ -n "$(offers zelctl "")" ]

# Options before a command, with values that are commands' names.
expect "--json" zelctl --j
expect "--server --state" zelctl bitmaps --s
expect "status" zelctl --server sync stat
expect "status" zelctl --server = sync stat

# The words that an option takes, with a blank and with an equals sign before them.
expect "ncalrpc ncacn_ip_tcp ncacn_np ncacn_http" zelctl --protseq ""
expect "ncacn_np" zelctl ping --protseq ncacn_n
expect "ncacn_np" zelctl ping --protseq = ncacn_n
expect "ntlm none" zelctl ping --auth =

# Nothing of ours, so that the shell offers files.
complete -p zelctl | grep -q -- "-o default"
for place in "track" "untrack" "bitmaps" "show --png" "export -o" "export --output" "apply --from" \
             "apply --full --to" "backup --from" "verify --to"; do
  # shellcheck disable=SC2086
  expect "" zelctl $place ""
done

# Ids, of this machine alone; asked for only where one may stand.
asked=$(mktemp)
trap 'rm -f "$script" "$asked"' EXIT
zelctl() {
  echo "$*" >>"$asked"
  printf '0x0000000000000a01  2026-01-31T00:00:00.0000000Z  64.0 KiB  C:\\a b\n0x0000000000000b02  x\n'
}
expect "0x0000000000000a01 0x0000000000000b02" zelctl delete ""
expect "0x0000000000000b02" zelctl delete 0x1 0x0000000000000b
expect "0x0000000000000a01 0x0000000000000b02" zelctl apply --full --bitmap ""
expect "0x0000000000000a01 0x0000000000000b02" zelctl show 0x
[ "$(sort -u "$asked")" = "bitmaps --timeout 2" ]
: >"$asked"
expect "" zelctl show C
expect "" zelctl --server there delete ""
expect "" zelctl track 0x
[ ! -s "$asked" ]
