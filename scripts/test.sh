#!/usr/bin/env bash
# Builds skerir and runs every test suite: a normal build, AddressSanitizer with
# UndefinedBehaviorSanitizer, and ThreadSanitizer. Installs what is missing first.
# Usage: scripts/test.sh            (all three builds)
#        SKERIR_TEST_BUILDS="normal" scripts/test.sh   (a subset: normal asan tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh media

builds=${SKERIR_TEST_BUILDS:-normal asan tsan}
jobs=$(nproc)
build() {  # build <dir> <extra cmake args...>
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}
run_ctest() {  # run_ctest <dir> <ctest args...>
  local dir=$1; shift
  (cd "$dir" && ctest --output-on-failure --timeout 900 "$@")
}

# Any sanitizer report fails the test that produced it.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

for b in $builds; do
  case $b in
    normal)
      echo "== normal build"
      build build
      run_ctest build
      ;;
    asan)
      echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
      build build-asan "-DSKERIR_SANITIZE=address;undefined"
      run_ctest build-asan -LE e2e
      ;;
    tsan)
      echo "== ThreadSanitizer build"
      build build-tsan -DSKERIR_SANITIZE=thread
      run_ctest build-tsan -LE e2e
      ;;
    *) echo "unknown build: $b" >&2; exit 2 ;;
  esac
done
