#!/usr/bin/env bash
# The AVX2 kernels' object may define no symbol of the library's own that the
# linker could merge with another file's copy (a weak, inline definition):
# such a copy, compiled for AVX2, could end up on the paths for processors
# without it.
#   check_kernel_isolation.sh OBJECT...
set -u
object=""
for o in "$@"; do
  case "$o" in *kernels_avx2*) object=$o ;; esac
done
[ -n "$object" ] || { echo "no AVX2 kernels object among the arguments"; exit 1; }
shared=$(nm -C --defined-only "$object" | awk '$2 ~ /^[WVu]$/' | grep 'NSFerrand::' || true)
if [ -n "$shared" ]; then
  echo "weak definitions of the library's own in $object:"
  echo "$shared"
  exit 1
fi
echo "kernel isolation: no shared inline code in $(basename "$object")"
