#!/usr/bin/env bash
# Builds skerir and runs every test suite: a normal build, AddressSanitizer with
# UndefinedBehaviorSanitizer, and ThreadSanitizer; then fuzzes every parser for a short while
# with libFuzzer (clang, AddressSanitizer + UndefinedBehaviorSanitizer). Installs what is
# missing first.
# Usage: scripts/test.sh            (all four builds)
#        SKERIR_TEST_BUILDS="normal" scripts/test.sh   (a subset: normal asan tsan fuzz)
#        SKERIR_FUZZ_SECONDS=300 SKERIR_TEST_BUILDS=fuzz scripts/test.sh   (fuzz for longer)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh test

builds=${SKERIR_TEST_BUILDS:-normal asan tsan fuzz}
jobs=$(nproc)
build() {  # build <dir> <extra cmake args...>
  local dir=$1; shift
  # Tests on explicitly: the run command may have configured the same directory without them.
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSKERIR_BUILD_TESTS=ON "$@" \
    >/dev/null
  cmake --build "$dir" -j "$jobs"
}
total_passed=0
total_failed=0
run_ctest() {  # run_ctest <dir> <ctest args...>; adds its counts to the totals
  local dir=$1; shift
  local log rc=0
  log=$(mktemp)
  (cd "$dir" && ctest --output-on-failure --timeout 900 "$@") 2>&1 | tee "$log" || rc=$?
  local summary
  summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1)
  rm -f "$log"
  if [ -n "$summary" ]; then
    local failed all
    failed=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$summary")
    all=$(sed -E 's/.* tests failed out of ([0-9]+).*/\1/' <<<"$summary")
    total_failed=$((total_failed + failed))
    total_passed=$((total_passed + all - failed))
  fi
  return "$rc"
}

# Runs every fuzz target for SKERIR_FUZZ_SECONDS (default 20), as many at a time as there are
# cores, each on a copy of its seed corpus outside the tree. A crash, a broken invariant, a leak
# or an input slower than 10 s fails the run; the input that did it is kept in
# build-fuzz/findings/ (add it to fuzz/corpus/<parser>/ once fixed).
run_fuzzers() {
  local dir=build-fuzz seconds=${SKERIR_FUZZ_SECONDS:-20}
  local targets=() t
  for t in fuzz/*_fuzzer.cpp; do targets+=("$(basename "$t" .cpp)"); done
  CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DSKERIR_BUILD_FUZZ=ON -DSKERIR_BUILD_TESTS=OFF "-DSKERIR_SANITIZE=address;undefined" >/dev/null
  cmake --build "$dir" -j "$jobs" --target "${targets[@]}"

  local work; work=$(mktemp -d)
  rm -rf "$dir/findings"; mkdir -p "$dir/findings"
  fuzz_one() {  # fuzz_one <target>: runs in the background, leaves <work>/<target>.rc
    local p=${1%_fuzzer} rc=0
    mkdir -p "$work/$p"
    cp fuzz/corpus/"$p"/* "$work/$p/"
    # The parsers log every step; closing the target's stdout and stderr keeps libFuzzer's own
    # output and the sanitizer reports, and keeps the fuzzer fast.
    "$dir/fuzz/$1" -max_total_time="$seconds" -timeout=10 -close_fd_mask=3 -print_final_stats=1 \
      -artifact_prefix="$dir/findings/$p-" "$work/$p" >"$work/$1.log" 2>&1 || rc=$?
    echo "$rc" >"$work/$1.rc"
  }
  local running=0
  for t in "${targets[@]}"; do
    fuzz_one "$t" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then wait -n || true; running=$((running - 1)); fi
  done
  wait

  local failed=()
  for t in "${targets[@]}"; do
    local runs cov
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$t.log")
    cov=$(grep -o 'cov: [0-9]*' "$work/$t.log" | tail -1 || true)
    if [ "$(cat "$work/$t.rc")" = 0 ]; then
      echo "fuzz: $t: ${runs:-?} runs in ${seconds}s, ${cov:-cov: ?}, no findings"
    else
      echo "fuzz: $t FAILED:"
      tail -n 60 "$work/$t.log"
      failed+=("$t")
    fi
  done
  rm -rf "$work"
  if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz: findings in ${failed[*]}; inputs kept in $dir/findings/" >&2
    return 1
  fi
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
    fuzz)
      echo "== libFuzzer build: every parser fuzzed for ${SKERIR_FUZZ_SECONDS:-20}s"
      run_fuzzers
      ;;
    *) echo "unknown build: $b" >&2; exit 2 ;;
  esac
done

# One closing line over every CTest run above.
echo "$total_passed passed, $total_failed failed"
