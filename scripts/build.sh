#!/usr/bin/env bash
# Configures and builds one tree: native (default), asan, tsan or windows.
#   scripts/build.sh TREE [cmake -D options] [--target targets...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
platform=${1:-native}
shift || true
case "$platform" in
  native) dir=$root/build/native; extra=() ;;
  asan) dir=$root/build/asan; extra=(-DCMAKE_BUILD_TYPE=Debug) ;;
  tsan) dir=$root/build/tsan; extra=(-DCMAKE_BUILD_TYPE=Debug) ;;
  windows) dir=$root/build/windows
           extra=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake") ;;
  *) echo "build.sh: unknown platform $platform (native, asan, tsan or windows)"; exit 2 ;;
esac
# Arguments from --target on go to the build, the others to the configuration.
configure=()
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --target) shift; targets+=(--target "$@"); break ;;
    *) configure+=("$1"); shift ;;
  esac
done
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${extra[@]}" "${configure[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)" "${targets[@]}"
