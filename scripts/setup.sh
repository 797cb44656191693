#!/usr/bin/env bash
# Installs what building and testing skerir needs on a Debian machine; does nothing when all
# of it is there. Usage: scripts/setup.sh [media]   ("media" adds nginx and ffmpeg)
set -euo pipefail

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
for pkg in g++ cmake ninja-build pkg-config libssl-dev libgtest-dev libgmock-dev libbenchmark-dev \
           clang libclang-rt-dev python3 curl; do
  have_pkg "$pkg" || need+=("$pkg")
done
if [ "${1:-}" = "media" ]; then
  for pkg in nginx-light ffmpeg; do
    have_pkg "$pkg" || need+=("$pkg")
  done
fi

if [ ${#need[@]} -gt 0 ]; then
  echo "setup: installing ${need[*]}"
  export DEBIAN_FRONTEND=noninteractive
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
