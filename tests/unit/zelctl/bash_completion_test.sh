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
complete -p zelctl >/dev/null
