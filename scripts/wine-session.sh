#!/usr/bin/env bash
# Runs a command inside one Wine session: a fresh headless prefix, one
# wineserver that stays up for the whole session, and a sound device (a JACK
# server with its dummy backend, real-time pace without hardware, with Wine's
# ALSA output routed into it through a private HOME). Every Windows program
# the command starts, through wine-run.sh, uses that one server; wine-run.sh
# checks that it still lives, so that a server that died is told as Wine's
# failure rather than looking like a failed test.
#   scripts/wine-session.sh COMMAND...
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver64

session=$(mktemp -d /tmp/quillon-wine.XXXXXX)
export WINEPREFIX=$session/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" WINEARCH=win64
# A JACK server of the session's own name: sessions side by side (two clones,
# say) never meet in one server.
export HOME=$session/home JACK_NO_START_SERVER=1 JACK_DEFAULT_SERVER=quillon-$$
unset DISPLAY
mkdir -p "$HOME"
printf 'pcm.!default { type plug slave.pcm "jack" }\n' > "$HOME/.asoundrc"

jackd_pid=""
server_pid=""
finish() {
  # The server goes first, so that no Wine process outlives the session.
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null
  timeout 30 "$wineserver" -k >/dev/null 2>&1
  [ -n "$server_pid" ] && wait "$server_pid" 2>/dev/null
  [ -n "$jackd_pid" ] && kill "$jackd_pid" 2>/dev/null && wait "$jackd_pid" 2>/dev/null
  rm -rf "$session"
}
trap finish EXIT

# The persistent server comes first, in the foreground of a child of ours:
# every program of the session, wineboot included, attaches to it, and its
# process id tells whether it still lives.
mkdir -p "$WINEPREFIX"
"$wineserver" -f -p >"$session/wineserver.log" 2>&1 </dev/null &
server_pid=$!
if ! timeout 180 "$wine" wineboot -i >"$session/wineboot.log" 2>&1 </dev/null; then
  echo "wine-session: wineboot failed"; cat "$session/wineboot.log"; exit 1
fi
if ! kill -0 "$server_pid" 2>/dev/null; then
  echo "wine-session: the wineserver did not stay up"; cat "$session/wineserver.log"; exit 1
fi
export QUILLON_WINESERVER_PID=$server_pid

# The dummy backend keeps real time only while its thread is scheduled on
# time: in the real-time class where the machine allows it, so that a loaded
# machine slows Wine and the library, never the device's clock.
start_jackd() {
  jackd "$1" -n "$JACK_DEFAULT_SERVER" -d dummy -r 48000 -p 256 >"$session/jackd.log" 2>&1 </dev/null &
  jackd_pid=$!
  for _ in $(seq 50); do
    jack_lsp >/dev/null 2>&1 && return 0
    kill -0 "$jackd_pid" 2>/dev/null || return 1
    sleep 0.1
  done
  return 1
}
if ! start_jackd -R; then
  kill "$jackd_pid" 2>/dev/null && wait "$jackd_pid" 2>/dev/null
  echo "wine-session: no real-time class for the JACK server; its clock runs at ordinary priority"
  start_jackd -r
fi
if jack_lsp >/dev/null 2>&1; then
  timeout 60 "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Audio /d alsa /f \
    >/dev/null 2>&1 </dev/null
  # The tests of real audio must find the device, not skip it.
  export QUILLON_EXPECT_WAVE_OUT=1 QUILLON_JACKD_PID=$jackd_pid
else
  echo "wine-session: the JACK server did not start; the tests of real audio will skip"
  cat "$session/jackd.log"
fi

"$@"
