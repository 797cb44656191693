#!/usr/bin/env bash
# Builds skerir and runs every test suite: a normal build, AddressSanitizer with
# UndefinedBehaviorSanitizer, and ThreadSanitizer; then fuzzes every parser for a short while
# with libFuzzer (clang, AddressSanitizer + UndefinedBehaviorSanitizer). Installs what is
# missing first. Every requested build runs even when an earlier one failed; the last line
# counts the tests that passed and failed, and the exit status is non-zero when anything failed.
# Usage: scripts/test.sh            (all four builds)
#        SKERIR_TEST_BUILDS="normal" scripts/test.sh   (a subset: normal asan tsan fuzz)
#        SKERIR_FUZZ_SECONDS=300 SKERIR_TEST_BUILDS=fuzz scripts/test.sh   (fuzz for longer)
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh test || exit 1

builds=${SKERIR_TEST_BUILDS:-normal asan tsan fuzz}
jobs=$(nproc)
passed=0 failed=0

build() {  # build <dir> <extra cmake args...>
  local dir=$1; shift
  # Tests on explicitly: the run command may have configured the same directory without them.
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSKERIR_BUILD_TESTS=ON "$@" \
    >/dev/null && cmake --build "$dir" -j "$jobs"
}

run_ctest() {  # run_ctest <dir> <ctest args...>: adds its counts to the totals
  local dir=$1 log; shift
  log=$(mktemp)
  # Twice as many tests as cores: most of them wait on the time-outs they prove rather than
  # compute, and the load test, which does compute, runs alone.
  (cd "$dir" && ctest --output-on-failure --timeout 900 -j $((2 * jobs)) "$@") 2>&1 | tee "$log"
  local summary
  summary=$(grep -oE '[0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1)
  rm -f "$log"
  if [ -z "$summary" ]; then failed=$((failed + 1)); return; fi
  local f=${summary%% *} all=${summary##* }
  failed=$((failed + f))
  passed=$((passed + all - f))
}

# Runs every fuzz target for SKERIR_FUZZ_SECONDS (default 20), as many at a time as there are
# cores, each on a copy of its seed corpus. A crash, a broken invariant, a leak or an input
# slower than 10 s counts as a failed test; the input is kept in build-fuzz/findings/ (add it
# to fuzz/corpus/<parser>/ once fixed).
run_fuzzers() {
  local dir=build-fuzz seconds=${SKERIR_FUZZ_SECONDS:-20} targets=() t
  for t in fuzz/*_fuzzer.cpp; do targets+=("$(basename "$t" .cpp)"); done
  if ! CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DSKERIR_BUILD_FUZZ=ON -DSKERIR_BUILD_TESTS=OFF "-DSKERIR_SANITIZE=address;undefined" \
      >/dev/null || ! cmake --build "$dir" -j "$jobs" --target "${targets[@]}"; then
    failed=$((failed + 1)); return
  fi
  local work; work=$(mktemp -d)
  rm -rf "$dir/findings"; mkdir -p "$dir/findings"
  for t in "${targets[@]}"; do
    local p=${t%_fuzzer}
    mkdir -p "$work/$p"; cp fuzz/corpus/"$p"/* "$work/$p/"
    # The parsers log every step: closing the target's stdout and stderr keeps it fast.
    ( "$dir/fuzz/$t" -max_total_time="$seconds" -timeout=10 -close_fd_mask=3 \
        -print_final_stats=1 -artifact_prefix="$dir/findings/$p-" "$work/$p" >"$work/$t.log" 2>&1
      echo $? >"$work/$t.rc" ) &
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n; done
  done
  wait
  for t in "${targets[@]}"; do
    if [ "$(cat "$work/$t.rc")" = 0 ]; then
      echo "fuzz: $t: $(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$t.log") runs, no findings"
      passed=$((passed + 1))
    else
      echo "fuzz: $t FAILED (input kept in $dir/findings/):"; tail -n 40 "$work/$t.log"
      failed=$((failed + 1))
    fi
  done
  rm -rf "$work"
}

# Any sanitizer report fails the test that produced it.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

for b in $builds; do
  echo "== at ${SECONDS}s:"
  case $b in
    normal) echo "== normal build"
            if build build; then run_ctest build; else failed=$((failed + 1)); fi ;;
    asan)   echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
            if build build-asan "-DSKERIR_SANITIZE=address;undefined"; then
              run_ctest build-asan -LE e2e; else failed=$((failed + 1)); fi ;;
    tsan)   echo "== ThreadSanitizer build"
            if build build-tsan -DSKERIR_SANITIZE=thread; then
              run_ctest build-tsan -LE e2e; else failed=$((failed + 1)); fi ;;
    fuzz)   echo "== libFuzzer build: every parser fuzzed for ${SKERIR_FUZZ_SECONDS:-20}s"
            run_fuzzers ;;
    *)      echo "unknown build: $b" >&2; failed=$((failed + 1)) ;;
  esac
done

echo "$passed passed, $failed failed in ${SECONDS}s"
[ "$failed" -eq 0 ]
