#!/usr/bin/env bash
# skerir's macro benchmark: bulk pulls, time to first byte and live load against nginx on
# loopback, beside curl (the limit) and ffmpeg. Builds skerir (RelWithDebInfo, as shipped) into build-bench/,
# makes its media once into build-bench/macro-cache/ (ffmpeg; about 1.3 GB, reused), and
# bounds itself to about 15 minutes.
# Usage: bench/macro/run.sh [--profile] [--skip-ffmpeg] [--reps N] [--clients 50,200,1000] ...
set -euo pipefail
cd "$(dirname "$0")/../.."
scripts/setup.sh media

jobs=$(nproc)
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSKERIR_BUILD_TESTS=OFF \
  -DSKERIR_BUILD_BENCH=OFF >/dev/null
cmake --build build-bench -j "$jobs" --target skerir

# A thousand clients, each a socket here and two in skerir (client and upstream).
ulimit -n "$(ulimit -Hn)"

# The harness stops everything it started on any exit, a time-out's SIGTERM included.
exec timeout --signal=TERM --kill-after=30 1020 \
  python3 -u bench/macro/macro.py run --skerir build-bench/skerir \
  --cache build-bench/macro-cache "$@"
