#!/usr/bin/env bash
# Runs a Windows program under Wine for CTest. The program's output goes to
# a file first: a pipe that a wineserver inherits would never close.
set -u
: "${WINEPREFIX:?WINEPREFIX is not set: run through scripts/test.sh}"
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
out=$(mktemp)
timeout --kill-after=10 "${QUILLON_WINE_TIMEOUT:-600}" /usr/lib/wine/wine64 "$@" >"$out" 2>&1 </dev/null
rc=$?
cat "$out"
rm -f "$out"
[ $rc -eq 124 ] && echo "wine-run: timed out: $*"
exit $rc
