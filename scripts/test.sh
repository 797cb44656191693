#!/usr/bin/env bash
# Builds skerir and runs every test suite. Installs what is missing first.
# Usage: scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh media

jobs=$(nproc)
build() {  # build <dir> <extra cmake args...>
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

echo "== normal build"
build build
(cd build && ctest --output-on-failure --timeout 600)
