#!/usr/bin/env bash
# The shared object exports exactly the three functions of the boundary.
set -euo pipefail
actual=$(nm -D --defined-only "$1" | awk '$2 ~ /^[TtWwDdBbVvRr]$/ {print $3}' | sort)
expected=$(printf '%s\n' Quillon_Create Quillon_Delete Quillon_New)
if [ "$actual" != "$expected" ]; then
  echo "exports differ:"; diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "exports: $(echo $actual)"
# Hosts link against the major version's name.
soname=$(readelf -d "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
if [ "$soname" != "libquillon.so.$2" ]; then
  echo "soname is '$soname', not libquillon.so.$2"
  exit 1
fi
echo "soname: $soname"
