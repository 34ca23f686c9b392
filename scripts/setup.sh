#!/usr/bin/env bash
# Installs what the project needs on a Debian machine. Safe to run again: it
# installs only what is missing.
set -euo pipefail

packages=(
  cmake make g++ pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libboost-dev
  g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64
  wine64
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
