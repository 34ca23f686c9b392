#!/usr/bin/env bash
# Runs a Windows program under Wine for CTest, inside a session of
# wine-session.sh. The program's output goes to a file first: a pipe that a
# wineserver inherits would never close.
set -u
: "${WINEPREFIX:?WINEPREFIX is not set: run through scripts/wine-session.sh}"
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="

server_alive() { [ -z "${QUILLON_WINESERVER_PID:-}" ] || kill -0 "$QUILLON_WINESERVER_PID" 2>/dev/null; }
if ! server_alive; then
  echo "wine-run: the session's wineserver has died before this program started;" \
    "this is a failure of Wine, not of the program: $*"
  exit 125
fi
out=$(mktemp)
timeout --kill-after=10 "${QUILLON_WINE_TIMEOUT:-600}" /usr/lib/wine/wine64 "$@" >"$out" 2>&1 </dev/null
rc=$?
cat "$out"
if ! server_alive || grep -q '^wine client error' "$out"; then
  echo "wine-run: the session's wineserver died while this program ran;" \
    "the result above is Wine's failure, not the program's: $*"
  rc=125
elif [ -n "${QUILLON_JACKD_PID:-}" ] && ! kill -0 "$QUILLON_JACKD_PID" 2>/dev/null; then
  echo "wine-run: the session's JACK server has died; real-audio results above are not the program's: $*"
fi
rm -f "$out"
[ $rc -eq 124 ] && echo "wine-run: timed out: $*"
exit $rc
