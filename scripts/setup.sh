#!/usr/bin/env bash
# Installs what is missing on a Debian machine (apt-get); does nothing when all of it is there.
# Usage: scripts/setup.sh [run]   what building and running skerir with the sample needs:
#                                 compiler, CMake, OpenSSL, nginx and ffmpeg for the sample
#        scripts/setup.sh scale   that and HAProxy, for deploy/scale-out.sh
#        scripts/setup.sh test    that, and what the tests, fuzzing and benchmarks need
# ("media", the old name of the first set, still works.)
set -euo pipefail

run_pkgs=(g++ cmake ninja-build pkg-config libssl-dev python3 curl nginx-light ffmpeg)
# GoogleTest and Benchmark for the suites, clang with its runtime for libFuzzer, the Prometheus
# client's parser for the /metrics test, systemd-analyze for the service unit's test, HAProxy
# for the scale-out test.
scale_pkgs=(haproxy)
test_pkgs=(libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-dev
           python3-prometheus-client systemd "${scale_pkgs[@]}")

case "${1:-run}" in
  run | media) wanted=("${run_pkgs[@]}") ;;
  scale) wanted=("${run_pkgs[@]}" "${scale_pkgs[@]}") ;;
  test) wanted=("${run_pkgs[@]}" "${test_pkgs[@]}") ;;
  *) echo "usage: scripts/setup.sh [run|scale|test]" >&2; exit 2 ;;
esac

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
for pkg in "${wanted[@]}"; do
  have_pkg "$pkg" || need+=("$pkg")
done

if [ ${#need[@]} -gt 0 ]; then
  echo "setup: installing ${need[*]}"
  export DEBIAN_FRONTEND=noninteractive
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
