#!/usr/bin/env bash
# Installs what building and testing needs on Debian 12; does nothing when all of it is there.
set -euo pipefail

packages=(
  cmake ninja-build clang clang-format libclang-rt-14-dev googletest
  g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 winbind strace
  wixl msitools libcli11-dev nlohmann-json3-dev
  python3 python3-pytest python3-impacket git iproute2 procps
)
# Node.js from elsewhere brings its own npm, which Debian's package would not go with.
command -v npm >/dev/null || packages+=(npm)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if ! command -v apt-get >/dev/null; then
  echo "This script installs packages with apt-get, which is not here. Needed: ${missing[*]}" >&2
  exit 1
fi
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "Installing packages needs root or sudo. Needed: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT
install() {
  "${as_root[@]}" apt-get update && "${as_root[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
}
install >"$log" 2>&1 || { tail -n 30 "$log" >&2; exit 1; }
