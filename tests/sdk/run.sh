#!/usr/bin/env bash
# The Windows SDK as a host author gets it: packs the zip from the build
# tree, unpacks it into a fresh folder, checks its layout, builds a host
# against it with CMake (find_package) and with one plain compile against
# the import library, and runs both under Wine (inside a Wine session).
#   tests/sdk/run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$build" && cpack --config CPackConfig.cmake -B "$work/pack" >/dev/null)
zip=$(ls "$work"/pack/Quillon-*-win64.zip)
mkdir -p "$work/unpacked"
(cd "$work/unpacked" && cmake -E tar xf "$zip")
sdk=$(ls -d "$work"/unpacked/Quillon-*-win64)
echo "sdk: $(basename "$zip")"

for file in bin/Quillon.dll bin/quillon_demo.exe lib/Quillon.lib lib/Quillon.def \
    include/quillon/quillon.h include/quillon/abi.h include/quillon/quillon_util.h \
    lib/cmake/Quillon/QuillonConfig.cmake lib/cmake/Quillon/QuillonConfigVersion.cmake \
    lib/pkgconfig/quillon.pc host-guide.md LICENSE README.md CHANGELOG.md; do
  if [ ! -f "$sdk/$file" ]; then
    echo "sdk: $file is missing"
    exit 1
  fi
done
PKG_CONFIG_PATH="$sdk/lib/pkgconfig" pkg-config --libs quillon | grep -q -- "-L$sdk/lib/pkgconfig/../../lib -lQuillon"

cmake -S "$source/tests/sdk/consumer" -B "$work/consumer" \
  -DCMAKE_TOOLCHAIN_FILE="$source/cmake/mingw-w64-x86_64.cmake" -DCMAKE_PREFIX_PATH="$sdk" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/consumer" >/dev/null
x86_64-w64-mingw32-g++-posix -std=c++17 -I"$sdk/include" "$source/tests/sdk/consumer/consumer.cpp" \
  "$sdk/lib/Quillon.lib" -static -o "$work/plain_consumer.exe"

# Each host finds the DLL beside itself, as a shipped host does.
cp "$sdk/bin/Quillon.dll" "$work/consumer/"
cp "$sdk/bin/Quillon.dll" "$work/"
"$source/scripts/wine-run.sh" "$work/consumer/sdk_consumer.exe"
"$source/scripts/wine-run.sh" "$work/plain_consumer.exe"
(cd "$sdk/bin" && "$source/scripts/wine-run.sh" ./quillon_demo.exe --help) | grep -q "usage: quillon_demo"
echo "sdk: both hosts played"
