#!/usr/bin/env bash
# Makes the proving kit (docs/windows.md), build/package/zelservice-proving-kit-VERSION.zip: the test
# programs, the simulated driver, the product and prove.exe, for a Windows machine with nothing
# installed.
#
#   tools/kit.sh           ends with the path of the zip
set -Eeuo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
tools/install-packages.sh

version=$(sed -nE 's/^project\(ZelService VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
name=zelservice-proving-kit-$version
kit=build/package/$name
bin=build/mingw/bin

programs=(
  zelservice zelctl
  unit_tests zelctl_unit_tests prove_unit_tests
  integration_tests bitmap_probe service_tests install_directory_tests
  service_manager_tests dummy_service bitmap_tests tracking_tests
  driver_tests message_in_hand_probe zelctl_tests
)
beside_simulator=(
  driversim file_worker port_reader simulator_tests module_host change_model_tests rpc_tests
)

libraries=(zel_simulated_fltlib simhook pipehook)

{
  cmake --preset mingw
  cmake --build --preset mingw --target prove "${programs[@]}" "${beside_simulator[@]}" "${libraries[@]}"
  tools/sqlite-shell.sh
} >&2

rm -rf "$kit" "$kit.zip"
mkdir -p "$kit"/{bin/simulator,demo,source/docs,source/package,source/rpc}
cp "$bin/prove.exe" docs/windows.md "$kit"
for program in "${programs[@]}"; do cp "$bin/$program.exe" "$kit/bin"; done
for program in "${beside_simulator[@]}"; do cp "$bin/simulator/$program.exe" "$kit/bin/simulator"; done
cp "$bin"/simulator/*.dll "$kit/bin/simulator"
cp build/sqlite/sqlite3.exe demo/*.sql "$kit/demo"
# What the unit tests compare the code with.
cp docs/*.md "$kit/source/docs"
cp package/plexor.conf "$kit/source/package"
cp rpc/zel.idl "$kit/source/rpc"
find "$kit" \( -name '*.exe' -o -name '*.dll' \) -exec x86_64-w64-mingw32-strip {} +

tools/reproducible_zip.py "$kit.zip" "$name" "$(git log -1 --format=%ct)" "$kit"/*
rm -rf "$kit"
echo "$kit.zip"
