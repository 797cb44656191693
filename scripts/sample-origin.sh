#!/usr/bin/env bash
# Serves sample/ over HTTP with nginx: the origin that the sample playlists point at.
#
# Runs nginx in the foreground with a configuration generated into a fresh temporary directory
# (pid file, error log and every temp path live there, so it runs as root or not, without
# /var/lib/nginx). HTTP/1.1 keep-alive and sendfile as a real origin would; no access log.
#
# Usage: scripts/sample-origin.sh [--port PORT] [--root DIR] [--rate BYTES]
#   --port  listen on 127.0.0.1:PORT (default 7780, the port written into the sample playlists;
#           other ports serve the cache-placeholder playlists, which name no port)
#   --root  directory to serve (default sample/ of this tree)
#   --rate  send at most BYTES per second per connection (a slow origin; default unlimited)
#
# The script becomes the nginx master process (exec), so its pid takes nginx's signals:
# SIGTERM or SIGINT stop at once; SIGQUIT stops gracefully (requests in flight are finished,
# idle keep-alive connections closed). A small watcher removes the temporary directory once
# nginx has gone. Exits non-zero with a clear message when the port is taken.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
port=7780
root="$here/sample"
rate=0
while [ $# -gt 0 ]; do
  case "$1" in
    --port) port=$2; shift 2 ;;
    --root) root=$(cd "$2" && pwd); shift 2 ;;
    --rate) rate=$2; shift 2 ;;
    *) echo "usage: $0 [--port PORT] [--root DIR] [--rate BYTES]" >&2; exit 2 ;;
  esac
done

nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
fail() { echo "sample-origin: $*" >&2; exit 1; }
[ -x "$nginx_bin" ] || fail "nginx missing (run scripts/setup.sh media)"
[ -d "$root/vod" ] || fail "no sample in $root (run scripts/make-sample.sh)"

if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
  fail "127.0.0.1:$port is already in use; stop whatever listens there"
fi

tmp=$(mktemp -d -t skerir-origin.XXXXXX)
chmod 755 "$tmp"  # nginx workers may run as another user and still need their temp paths

# With a rate limit nginx sends one piece, then waits for as long as the piece is worth; cap the
# piece at a quarter second's worth so that the data trickles instead of coming in bursts a
# second apart (a client waiting 2 s for the next bytes would give up).
chunk_line=""
[ "$rate" -gt 0 ] && chunk_line="sendfile_max_chunk $(( rate / 4 > 1024 ? rate / 4 : 1024 ));"

# As root, nginx would switch its workers to "nobody"; keep the caller's user so that the
# sample is readable whatever its permissions.
user_line=""
[ "$(id -u)" -eq 0 ] && user_line="user root root;"
cat >"$tmp/nginx.conf" <<EOF
$user_line
daemon off;
master_process on;
worker_processes 1;
pid $tmp/nginx.pid;
error_log $tmp/error.log warn;

events {
  worker_connections 256;
}

http {
  types {
    application/vnd.apple.mpegurl m3u8;
    video/mp2t ts;
    application/octet-stream key;
  }
  default_type application/octet-stream;
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_timeout 65;
  keepalive_requests 10000;
  etag off;
  limit_rate $rate;
  $chunk_line

  client_body_temp_path $tmp/client_body;
  proxy_temp_path $tmp/proxy;
  fastcgi_temp_path $tmp/fastcgi;
  uwsgi_temp_path $tmp/uwsgi;
  scgi_temp_path $tmp/scgi;

  server {
    listen 127.0.0.1:$port;
    server_name _;
    root $root;
  }
}
EOF

if ! "$nginx_bin" -t -q -p "$tmp" -e "$tmp/error.log" -c "$tmp/nginx.conf"; then
  rm -rf "$tmp"
  exit 1
fi

# After the exec below, $$ is nginx's master; the watcher outlives the script's own shell and
# holds none of its output descriptors, so readers of nginx's output see its end at once.
script_pid=$$
# It ignores the hang-up and interrupt that a closing terminal or Ctrl-C sends to the group.
(
  trap '' HUP INT
  while kill -0 "$script_pid" 2>/dev/null; do sleep 1; done
  rm -rf "$tmp"
) </dev/null >/dev/null 2>&1 &

echo "sample-origin: serving $root on http://127.0.0.1:$port/ (pid $$)"
# -e: errors before the configuration is read go to the temp dir too, not /var/log.
exec "$nginx_bin" -p "$tmp" -e "$tmp/error.log" -c "$tmp/nginx.conf"
