#!/usr/bin/env bash
# Makes a fresh, headless Wine prefix and keeps a wineserver running for it,
# so that no test's output pipe is inherited by the server. Source it.
if [ -n "${QUILLON_WINEPREFIX:-}" ]; then
  export WINEPREFIX="$QUILLON_WINEPREFIX"
  quillon_prefix_is_ours=0
else
  export WINEPREFIX=$(mktemp -d /tmp/quillon-wine.XXXXXX)
  quillon_prefix_is_ours=1
fi
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export WINEARCH=win64
unset DISPLAY
timeout 180 /usr/lib/wine/wine64 wineboot -i >/dev/null 2>&1 </dev/null || {
  echo "wine-prefix: wineboot failed"; return 1 2>/dev/null || exit 1; }
timeout 60 wineserver -w >/dev/null 2>&1 </dev/null || true
wineserver -p >/dev/null 2>&1 </dev/null &
disown 2>/dev/null || true
quillon_wine_stop() {
  wineserver -k >/dev/null 2>&1 || true
  if [ "$quillon_prefix_is_ours" = 1 ]; then rm -rf "$WINEPREFIX"; fi
}
