#!/usr/bin/env bash
# Builds skerir and runs it against the sample: the nginx origin on 127.0.0.1:7780, the live
# origin on 127.0.0.1:7781 and skerir on port 7744 with a 16 MiB buffer. Prints the stream URLs
# to open in ffplay, mpv or VLC. Ctrl-C stops everything it started.
# Usage: scripts/run.sh
set -euo pipefail
cd "$(dirname "$0")/.."

readonly SKERIR_PORT=7744
readonly SAMPLE_PORT=7780
readonly LIVE_PORT=7781
readonly BUFFER_BYTES=16777216

scripts/setup.sh run
# The tests are built by the test command, which installs what they need.
cmake -S . -B build -G Ninja -DSKERIR_BUILD_TESTS=OFF >/dev/null
cmake --build build --target skerir

port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
for port in $SKERIR_PORT $SAMPLE_PORT $LIVE_PORT; do
  if port_open "$port"; then
    echo "run: 127.0.0.1:$port is already in use; stop whatever listens there first" >&2
    exit 1
  fi
done

pids=()
cleanup() {
  trap - EXIT INT TERM
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  echo "run: stopped"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

scripts/sample-origin.sh --port "$SAMPLE_PORT" &
pids+=($!)
python3 scripts/live-origin.py --port "$LIVE_PORT" &
pids+=($!)
build/skerir "$BUFFER_BYTES" &
pids+=($!)

# Wait until all three accept connections; give up if one of them has died.
for port in $SAMPLE_PORT $LIVE_PORT $SKERIR_PORT; do
  for _ in $(seq 300); do
    port_open "$port" && break
    for pid in "${pids[@]}"; do
      kill -0 "$pid" 2>/dev/null || { echo "run: a server failed to start" >&2; exit 1; }
    done
    sleep 0.1
  done
  port_open "$port" || { echo "run: nothing accepts on port $port" >&2; exit 1; }
done

# The cache-map sample resolves "@" and "~" through skerir's maps: point both at the origin.
origin="127.0.0.1:$SAMPLE_PORT"
curl -s -o /dev/null \
  "http://127.0.0.1:$SKERIR_PORT/update-cache-map?chunk=$origin&playlist=$origin" || true

stream_url() {  # stream_url <master playlist URL>
  local encoded
  encoded=$(python3 -c 'import sys, urllib.parse as u; print(u.quote(sys.argv[1], safe=""))' "$1")
  echo "http://127.0.0.1:$SKERIR_PORT/stream?url=$encoded"
}
cat <<EOF

skerir is running. Open one of these in ffplay, mpv or VLC:

  clear:      $(stream_url "http://127.0.0.1:$SAMPLE_PORT/vod/clear/master.m3u8")
  encrypted:  $(stream_url "http://127.0.0.1:$SAMPLE_PORT/vod/aes/master.m3u8")
  live:       $(stream_url "http://127.0.0.1:$LIVE_PORT/live/master.m3u8")
  cache map:  $(stream_url "http://~/vod/cache/master.m3u8")

for example:  ffplay '$(stream_url "http://127.0.0.1:$SAMPLE_PORT/vod/clear/master.m3u8")'
Statistics:   http://127.0.0.1:$SKERIR_PORT/stats.json
Press Ctrl-C to stop.

EOF

# Returns when Ctrl-C arrives (the INT trap) or when any of the three exits.
wait -n || true
echo "run: a server exited; stopping the others" >&2
exit 1
