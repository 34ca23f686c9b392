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

echo "== native build with address and undefined-behaviour sanitizers"
bash scripts/build.sh asan -DQUILLON_SANITIZE=address,undefined -DQUILLON_BUILD_BENCH=OFF
echo "== native tests under the sanitizers"
(cd build/asan && ASAN_OPTIONS=detect_stack_use_after_return=1:detect_leaks=1 \
  UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure --timeout 600 -j"$(nproc)")

echo "== native thread-sanitizer build of the driver core, the handle and MME"
bash scripts/build.sh tsan -DQUILLON_SANITIZE=thread -DQUILLON_BUILD_BENCH=OFF \
  --target quillon_driver_tests quillon_handle_tests quillon_mme_tests
echo "== driver core, handle and MME tests under the thread sanitizer"
for program in quillon_driver_tests quillon_handle_tests quillon_mme_tests; do
  TSAN_OPTIONS=halt_on_error=1 timeout 1200 build/tsan/bin/$program --gtest_brief=1
done

echo "== windows build"
bash scripts/build.sh windows
echo "== windows tests under Wine"
# shellcheck source=wine-prefix.sh
source scripts/wine-prefix.sh
# shellcheck source=wine-audio.sh
source scripts/wine-audio.sh
trap 'quillon_wine_stop; quillon_audio_stop' EXIT
(cd build/windows && ctest --output-on-failure --timeout 900)
