#!/usr/bin/env bash
# Sets everything up, builds both platforms and runs every test: natively,
# under the sanitizers, the fuzz targets, then the Windows build under Wine. Every stage runs
# even when an earlier one failed; a summary closes the run, and the exit
# status is non-zero when any stage failed.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

names=()
results=()
failed=0

# stage NAME COMMAND...: runs one stage and records how it ended.
stage() {
  local name=$1
  shift
  echo "== $name"
  local started=$SECONDS
  if "$@"; then
    results+=("passed  $(printf '%5d' $((SECONDS - started))) s  $name")
  else
    results+=("FAILED  $(printf '%5d' $((SECONDS - started))) s  $name")
    failed=$((failed + 1))
  fi
  names+=("$name")
}

summary() {
  echo
  echo "== summary"
  printf '%s\n' "${results[@]}"
  echo "stages: $(( ${#names[@]} - failed )) passed, $failed failed"
}

if ! bash scripts/setup.sh; then
  echo "test: setting up the machine failed; nothing can be built"
  exit 1
fi

# Programs that start threads, run once more under the thread sanitizer.
threaded=(quillon_failure_tests quillon_public_tests quillon_driver_tests
  quillon_handle_tests quillon_mme_tests quillon_asio_tests quillon_dsound_tests quillon_e2e_tests
  quillon_abi_tests quillon_hardware_tests quillon_wasapi_tests quillon_stress_tests
  quillon_fault_census)

native_tests() { (cd build/native && ctest --output-on-failure --timeout 300 -j"$(nproc)"); }
asan_tests() {
  (cd build/asan && ASAN_OPTIONS=detect_stack_use_after_return=1:detect_leaks=1 \
    UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure --timeout 600 -j"$(nproc)")
}
tsan_build() {
  bash scripts/build.sh tsan -DQUILLON_SANITIZE=thread -DQUILLON_BUILD_BENCH=OFF \
    --target "${threaded[@]}"
}
tsan_tests() {
  local program rc=0
  for program in "${threaded[@]}"; do
    echo "-- $program"
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
      timeout 1200 "build/tsan/bin/$program" --gtest_brief=1 || rc=1
  done
  return $rc
}
fuzz_build() {
  bash scripts/build.sh fuzz --target quillon_fuzz_spec quillon_fuzz_text quillon_fuzz_format \
    quillon_fuzz_status quillon_fuzz_asio_registry quillon_fuzz_dsound_names
}
wine_tests() { bash scripts/wine-session.sh bash -c 'cd build/windows && ctest --output-on-failure --timeout 900'; }

stage "native build" bash scripts/build.sh native
stage "native tests" native_tests
stage "reference of the public headers (doxygen, warnings fail it)" \
  cmake --build build/native --target quillon_docs
stage "native build with address and undefined-behaviour sanitizers" \
  bash scripts/build.sh asan -DQUILLON_SANITIZE=address,undefined -DQUILLON_BUILD_BENCH=OFF
stage "native tests under the address and undefined-behaviour sanitizers" asan_tests
stage "native build of the threaded test programs with the thread sanitizer" tsan_build
stage "threaded test programs under the thread sanitizer" tsan_tests
stage "fuzz targets, built with clang and the sanitizers" fuzz_build
stage "fuzz targets, 30 s each from the checked-in corpus" bash scripts/fuzz.sh 30
stage "windows build" bash scripts/build.sh windows
stage "windows tests under Wine" wine_tests

summary
[ "$failed" -eq 0 ]
