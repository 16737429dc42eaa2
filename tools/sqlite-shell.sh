#!/usr/bin/env bash
# Builds SQLite's shell for Windows from SQLite's own source, as build/sqlite/sqlite3.exe; does nothing
# when it is there.
set -Eeuo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# A package of the npm registry that carries SQLite's own source, library and shell.
package=sqlite3@6.0.1
archive=sqlite3-6.0.1.tgz
sha256=ab8d044a93e05bd031d7ea75547c7fa60387cdc259d27f93c0e3e2832c4b1df9
source=sqlite-autoconf-3520000

mkdir -p build/sqlite
cd build/sqlite
exec 9>lock
flock 9
[ ! -e sqlite3.exe ] || exit 0
[ -e "$archive" ] || npm pack "$package"
sha256sum -c <<<"$sha256  $archive"
tar -xzOf "$archive" "package/deps/$source.tar.gz" | tar -xz --no-same-owner
x86_64-w64-mingw32-gcc-posix -O1 -municode -static -s -Wl,--no-insert-timestamp -o sqlite3.part \
  "$source/sqlite3.c" "$source/shell.c"
mv sqlite3.part sqlite3.exe
