#!/usr/bin/env bash
# Runs a Windows program on Wine in a prefix of the build folder, made when it is missing.
# CMake's cross-compiling emulator and the test scripts call it; never the user's own prefix.
#
#   tools/wine-run.sh PROGRAM [ARGUMENT...]     ZEL_WINEPREFIX names another prefix,
#                                               ZEL_WINE_PRELOAD a library to load into its programs
#   tools/wine-run.sh --start                   makes the prefix and keeps its server running
#   tools/wine-run.sh --stop                    ends that server and every program in the prefix
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export WINEPREFIX=${ZEL_WINEPREFIX:-$root/build/wine/tests}
# Without winedbg a program that crashes always ends with its exception code; with it, some crashes
# end with 0 and would count as a test that passed.
export WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe,winedbg.exe=d"
unset DISPLAY WAYLAND_DISPLAY
# Every program of the prefix inherits it from the first one, the server and the services included.
if [ -n "${ZEL_WINE_PRELOAD:-}" ]; then export LD_PRELOAD=$ZEL_WINE_PRELOAD; fi

# At its start a Wine program maps a page at 0x7ffe0000. The kernel puts the heap anywhere in the
# gigabyte behind Wine's loader, and when that is there the program ends with 1 and no word, once in
# some thousand starts. Not randomized, the heap lies right behind the loader; some containers do not
# allow that.
wine=(wine)
if setarch -R true 2>/dev/null; then wine=(setarch -R wine); fi

make_prefix() {
  mkdir -p "$(dirname "$WINEPREFIX")"
  (
    flock 9
    [ -e "$WINEPREFIX/.ready" ] && exit 0
    "${wine[@]}" wineboot -i >"$WINEPREFIX.log" 2>&1 </dev/null
    wineserver -w
    touch "$WINEPREFIX/.ready"
  ) 9>"$WINEPREFIX.lock"
}

case "${1:?no program named}" in
  --start)
    make_prefix
    wineserver -p
    # The first program starts Wine's own services, which would keep its standard output open.
    "${wine[@]}" cmd /c exit >/dev/null 2>&1 </dev/null
    ;;
  --stop)
    if [ -e "$WINEPREFIX/.ready" ]; then wineserver -k || true; wineserver -w; fi
    ;;
  *)
    [ -e "$WINEPREFIX/.ready" ] || make_prefix
    exec "${wine[@]}" "$@"
    ;;
esac
