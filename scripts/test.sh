#!/usr/bin/env bash
# Sets everything up, builds both platforms and runs every test: natively,
# then the Windows build under Wine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

bash scripts/setup.sh

echo "== native build"
bash scripts/build.sh native
echo "== native tests"
(cd build/native && ctest --output-on-failure --timeout 300 -j"$(nproc)")

echo "== windows build"
bash scripts/build.sh windows
echo "== windows tests under Wine"
# shellcheck source=wine-prefix.sh
source scripts/wine-prefix.sh
trap quillon_wine_stop EXIT
(cd build/windows && ctest --output-on-failure --timeout 900)
