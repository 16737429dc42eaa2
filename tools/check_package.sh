#!/usr/bin/env bash
# Makes the packages once more from a copy of this tree in another folder, later, with another time
# zone and umask, compiling every source anew, and compares the checksums with those of
# tools/package.sh, which must have been run. Both are of this machine's compiler and tools.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

copy=$PWD/build/package-check/a-folder-of-another-length
trap 'rm -rf "$copy"' EXIT
rm -rf "$copy"
mkdir -p "$copy"
git ls-files -co --exclude-standard -z | tar -c --null --ignore-failed-read -T - | tar -xC "$copy"

# An object out of a cache would be compared with itself.
export CCACHE_DISABLE=1
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)}
export SOURCE_DATE_EPOCH
(umask 077 && TZ=Asia/Tokyo "$copy/tools/package.sh")

diff build/package/SHA256SUMS "$copy/build/package/SHA256SUMS"
(cd build/package && sha256sum -c SHA256SUMS)
