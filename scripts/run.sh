#!/usr/bin/env bash
# Sets everything up, builds the library and runs the demo host.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh >&2
bash scripts/build.sh native >&2
exec build/native/bin/quillon_demo "$@"
