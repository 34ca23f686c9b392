#!/usr/bin/env bash
# Configures and builds one tree: native (default), asan, tsan, fuzz or windows.
#   scripts/build.sh TREE [cmake -D options] [--target targets...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
platform=${1:-native}
shift || true
case "$platform" in
  native) dir=$root/build/native; extra=() ;;
  asan) dir=$root/build/asan; extra=(-DCMAKE_BUILD_TYPE=Debug) ;;
  tsan) dir=$root/build/tsan; extra=(-DCMAKE_BUILD_TYPE=Debug) ;;
  # The fuzz targets, with clang, the fuzzer's coverage and the address and
  # undefined-behaviour sanitizers on every file.
  fuzz) dir=$root/build/fuzz
        extra=(-DCMAKE_CXX_COMPILER=clang++ -DQUILLON_FUZZ=ON -DQUILLON_BUILD_BENCH=OFF
               -DQUILLON_SANITIZE=address,undefined,fuzzer-no-link) ;;
  windows) dir=$root/build/windows
           extra=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake") ;;
  *) echo "build.sh: unknown platform $platform (native, asan, tsan, fuzz or windows)"; exit 2 ;;
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
