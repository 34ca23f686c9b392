#!/usr/bin/env bash
# Gives the Wine prefix a sound device: a JACK server with its dummy backend
# (real-time pace, no hardware), Wine's ALSA output routed into it through a
# private HOME. Source it after wine-prefix.sh.
export JACK_NO_START_SERVER=1
quillon_audio_home=$(mktemp -d /tmp/quillon-audio.XXXXXX)
printf 'pcm.!default { type plug slave.pcm "jack" }\n' > "$quillon_audio_home/.asoundrc"
jackd -r -d dummy -r 48000 -p 256 > "$quillon_audio_home/jackd.log" 2>&1 </dev/null &
quillon_jackd=$!
for _ in $(seq 50); do
  jack_lsp >/dev/null 2>&1 && break
  sleep 0.1
done
HOME="$quillon_audio_home" timeout 60 /usr/lib/wine/wine64 reg add 'HKCU\Software\Wine\Drivers' \
  /v Audio /d alsa /f >/dev/null 2>&1 </dev/null
export HOME="$quillon_audio_home"
# The tests of real audio must find the device, not skip it.
export QUILLON_EXPECT_WAVE_OUT=1
quillon_audio_stop() {
  kill "$quillon_jackd" 2>/dev/null || true
  wait "$quillon_jackd" 2>/dev/null || true
  rm -rf "$quillon_audio_home"
}
