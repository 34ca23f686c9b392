#!/usr/bin/env bash
# Installs what the project needs on a Debian machine. Safe to run again: it
# installs only what is missing.
set -euo pipefail

packages=(
  cmake make g++ pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libboost-dev libicu-dev locales
  g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64
  wine64
  jackd2 libasound2-plugins
  doxygen
  clang libclang-rt-14-dev
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

# A locale that groups digits, for the tests of number text.
if ! locale -a 2>/dev/null | grep -qi '^en_US\.utf-\?8$'; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO sed -i 's/^# *en_US.UTF-8 UTF-8/en_US.UTF-8 UTF-8/' /etc/locale.gen
  grep -q '^en_US.UTF-8 UTF-8' /etc/locale.gen || echo 'en_US.UTF-8 UTF-8' | $SUDO tee -a /etc/locale.gen >/dev/null
  $SUDO locale-gen >/dev/null
fi
