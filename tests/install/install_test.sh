#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks what an operator gets: the binary runs,
# systemd accepts the unit as installed, and the Debian package holds the binary, the unit and
# the settings file, its unit starting /usr/bin/skerir. Exits 77 (skipped) when a tool is
# missing. Usage: tests/install/install_test.sh <build directory>
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }
exec_line='ExecStart=%s/bin/skerir $SKERIR_BUFFER_BYTES $SKERIR_OPTIONS'

cmake --install "$build" --prefix "$work/usr" >/dev/null
"$work/usr/bin/skerir" --version | grep -q '^skerir [0-9]' || fail "installed binary does not run"
unit=$work/usr/lib/systemd/system/skerir.service
# The unit must name the binary of this prefix (verify below checks that it exists).
grep -qxF "$(printf "$exec_line" "$work/usr")" "$unit" || fail "unit does not start the binary"

skipped=
if command -v systemd-analyze >/dev/null; then
  out=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify: $out"
  [ -z "$out" ] || fail "systemd-analyze verify: $out"  # warnings count too
else
  echo "install test: systemd-analyze missing (apt-get install systemd): unit not verified"
  skipped=1
fi

if command -v cpack >/dev/null && command -v dpkg-deb >/dev/null; then
  (cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/pkg" >/dev/null)
  deb=$(ls "$work"/pkg/skerir_*.deb)
  contents=$(dpkg-deb -c "$deb")
  for path in ./usr/bin/skerir ./usr/lib/systemd/system/skerir.service ./etc/default/skerir \
              ./usr/share/doc/skerir/README.md; do
    grep -q " $path\$" <<<"$contents" || fail "package lacks $path"
  done
  dpkg-deb -f "$deb" Depends | grep -q libssl3 || fail "package does not depend on libssl3"
  dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/lib/systemd/system/skerir.service |
    grep -qxF "$(printf "$exec_line" /usr)" || fail "packaged unit does not start /usr/bin/skerir"
else
  echo "install test: cpack or dpkg-deb missing: package not built"
  skipped=1
fi
[ -z "$skipped" ] || exit 77
echo "install test: passed"
