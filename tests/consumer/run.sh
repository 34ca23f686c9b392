#!/usr/bin/env bash
# Installs the built library into a folder, builds the consumer against it
# with its CMake package, checks the pkg-config file, and runs the consumer.
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs quillon | grep -q -- '-lquillon'
LD_LIBRARY_PATH="$work/prefix/lib" "$work/build/consumer"
