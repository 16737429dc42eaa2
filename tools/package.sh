#!/usr/bin/env bash
# Makes what is shipped, from this tree: the programs, built here, in a zip and in an installer.
#
#   tools/package.sh          build/package/zelservice-VERSION.zip
#                                           zelservice-VERSION-symbols.zip
#                                           zelservice-VERSION.msi
#                                           SHA256SUMS
#
# The same programs make the same packages, byte for byte, whenever this runs: the only time in them is
# SOURCE_DATE_EPOCH, the last commit's when it is not set. Whether the programs are the same when they
# are built in another folder is what tools/check_package.sh looks at; so far they were not. VERSION is
# that of CMakeLists.txt.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
tools/install-packages.sh

bin=build/mingw/bin
out=build/package
programs=(zelservice zelctl)
epoch=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)}
# Archives and objects of the tools that look at it.
export SOURCE_DATE_EPOCH=$epoch
umask 022

cmake --preset mingw
cmake --build --preset mingw --target "${programs[@]}"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/mingw/CMakeCache.txt)
name=zelservice-$version

stage=$out/stage
rm -rf "$stage" "$out/$name".{zip,msi} "$out/$name-symbols.zip" "$out/SHA256SUMS"
mkdir -p "$stage"/{bin,symbols/bin,config,include,rpc,simulator}

# The symbols are found in the programs' own folder, where the second zip puts them.
for program in "${programs[@]}"; do
  symbols=$stage/symbols/bin/$program.exe.debug
  x86_64-w64-mingw32-objcopy --only-keep-debug "$bin/$program.exe" "$symbols"
  x86_64-w64-mingw32-objcopy --strip-all --add-gnu-debuglink="$symbols" \
    "$bin/$program.exe" "$stage/bin/$program.exe"
done
sed 's/$/\r/' package/plexor.conf >"$stage/config/plexor.conf"
cp client/zel_bitmap.h "$stage/include"
cp rpc/zel.idl rpc/zel.h "$stage/rpc"
# The documents lie to each other as in the tree, so that their links hold.
cp -R README.md CONTRIBUTING.md docs demo "$stage"
cp simulator/README.md "$stage/simulator"

tools/reproducible_zip.py "$out/$name.zip" "$name" "$epoch" \
  "$stage"/{README.md,CONTRIBUTING.md,bin,config,demo,docs,include,rpc,simulator}
tools/reproducible_zip.py "$out/$name-symbols.zip" "$name" "$epoch" "$stage/symbols/bin"
package/make_installer.py "$out/$name.msi" "$stage/bin" "$stage/config/plexor.conf" "$epoch"
rm -r "$stage"

cd "$out"
sha256sum "$name.zip" "$name-symbols.zip" "$name.msi" | tee SHA256SUMS
