#!/usr/bin/env bash
# Configures and builds one platform: native (default) or windows.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
platform=${1:-native}
shift || true
case "$platform" in
  native) dir=$root/build/native; extra=() ;;
  asan) dir=$root/build/asan; extra=(-DCMAKE_BUILD_TYPE=Debug) ;;
  windows) dir=$root/build/windows
           extra=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake") ;;
  *) echo "build.sh: unknown platform $platform (native, asan or windows)"; exit 2 ;;
esac
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${extra[@]}" "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"
