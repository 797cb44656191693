#!/usr/bin/env bash
# Brings up a scaled-out skerir on this one host, every tier on loopback addresses of its own:
#
#   clients -> HAProxy B+1:7744 -> skerir B+21..B+20+N:7744 -> cache nginx B+11, B+12:7780
#                                                                  -> origin nginx B+2:7780
#                                                                       (/live/ -> B+2:7781)
#
# B is --base-address (127.0.77.0 by default; every address lies in 127.0.0.0/8, so nothing
# leaves the machine). The origin serves sample/ and a looping live presentation; the cache
# tier keeps one copy of each segment per node; every skerir instance gets the same cache maps
# (one ring of both cache nodes for segments and playlists) before HAProxy lets clients in.
# Runs in the foreground until Ctrl-C or SIGTERM, then stops every process it started and
# removes its temporary directory (configs, logs, caches).
#
# Usage: deploy/scale-out.sh [--instances N] [--base-address A] [--port P] [--skerir BINARY]
#                            [--buffer BYTES] [--rate BYTES] [--keep]
#   --instances  skerir instances (default 3)
#   --base-address  the address the tiers' addresses count from (default 127.0.77.0)
#   --port       port of HAProxy and of every skerir instance (default 7744)
#   --skerir     the binary to run (default: build/skerir, built first)
#   --buffer     skerir's buffer size in bytes (default 16777216)
#   --rate       cache nodes send at most BYTES per second per connection (default unlimited;
#                a slow tier keeps short test streams running long enough to fail over)
#   --keep       leave the temporary directory in place on exit
#
# Once everything answers it writes <dir>/layout, one line per process ("name address:port
# pid", cache nodes in ring order), prints it with the stream URLs, and prints
# "scale-out: ready". Logs: <dir>/<name>.out and .err; the origin's and the cache nodes'
# access logs (<dir>/<name>.access.log) end each line with nginx's cache status (HIT, MISS).
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
instances=3
base=127.0.77.0
port=7744
skerir=""
buffer=16777216
rate=0
keep=0
readonly ORIGIN_PORT=7780 LIVE_PORT=7781 CACHE_PORT=7780
usage() { sed -n '/^# Usage:/,/^# *--keep/s/^# \{0,1\}//p' "$0" >&2; exit 2; }
while [ $# -gt 0 ]; do
  case "$1" in
    --instances) instances=$2; shift 2 ;;
    --base-address) base=$2; shift 2 ;;
    --port) port=$2; shift 2 ;;
    --skerir) skerir=$(realpath -m "$2"); shift 2 ;;
    --buffer) buffer=$2; shift 2 ;;
    --rate) rate=$2; shift 2 ;;
    --keep) keep=1; shift ;;
    *) usage ;;
  esac
done

fail() { echo "scale-out: $*" >&2; exit 1; }
[[ $base =~ ^127\.([0-9]{1,3})\.([0-9]{1,3})\.([0-9]{1,3})$ ]] \
  || fail "--base-address must be an IPv4 address in 127.0.0.0/8"
prefix=${base%.*}
last=${BASH_REMATCH[3]}
[[ $instances =~ ^[1-9][0-9]*$ ]] && [ $((last + 20 + instances)) -le 254 ] \
  || fail "--instances must be at least 1 and fit above $base (at most $((234 - last)))"
for n in "$port" "$buffer" "$rate"; do
  [[ $n =~ ^[0-9]+$ ]] || fail "--port, --buffer and --rate take a number, not '$n'"
done
at() { echo "$prefix.$((last + $1))"; }  # at <offset>: the tier address at base + offset

"$here/scripts/setup.sh" scale
if [ -z "$skerir" ]; then
  (cd "$here" && cmake -S . -B build -G Ninja -DSKERIR_BUILD_TESTS=OFF >/dev/null \
     && cmake --build build --target skerir)
  skerir=$here/build/skerir
fi
[ -x "$skerir" ] || fail "$skerir is not an executable"
[ -d "$here/sample/vod/cache" ] || fail "no sample in $here/sample (run scripts/make-sample.sh)"

haproxy_addr=$(at 1):$port
origin_addr=$(at 2):$ORIGIN_PORT
live_addr=$(at 2):$LIVE_PORT
caches=("$(at 11):$CACHE_PORT" "$(at 12):$CACHE_PORT")
skerirs=()
for i in $(seq "$instances"); do skerirs+=("$(at $((20 + i))):$port"); done

port_open() { (exec 3<>"/dev/tcp/${1%:*}/${1##*:}") 2>/dev/null; }
for a in "$haproxy_addr" "$origin_addr" "$live_addr" "${caches[@]}" "${skerirs[@]}"; do
  # A listener on 0.0.0.0 of the same port answers here too and would make our bind fail.
  port_open "$a" && fail "$a is already in use (or something listens on 0.0.0.0:${a##*:})"
done

dir=$(mktemp -d -t skerir-scale.XXXXXX)
chmod 755 "$dir"  # nginx workers may run as another user and still need their temp paths
names=() pids=()
cleanup() {
  trap - EXIT INT TERM
  local p
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  # Every member stops within a few seconds of SIGTERM; whatever has not after 15 s is killed.
  for _ in $(seq 150); do [ -z "$(jobs -rp)" ] && break; sleep 0.1; done
  for p in $(jobs -rp); do kill -KILL "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ "$keep" = 1 ]; then echo "scale-out: stopped; files kept in $dir"
  else rm -rf "$dir"; echo "scale-out: stopped"; fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

start() {  # start <name> <command...>: in the background, output in <dir>/<name>.out/.err
  local name=$1; shift
  "$@" >>"$dir/$name.out" 2>>"$dir/$name.err" </dev/null &
  names+=("$name") pids+=($!)
}

wait_open() {  # wait_open <address:port>: until it accepts, or fail if a member has died
  for _ in $(seq 300); do
    port_open "$1" && return
    for i in "${!pids[@]}"; do
      kill -0 "${pids[$i]}" 2>/dev/null \
        || fail "${names[$i]} failed to start: $(tail -n 3 "$dir/${names[$i]}.err")"
    done
    sleep 0.1
  done
  fail "nothing accepts on $1"
}

nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
nginx() {  # nginx <name> <http-block lines>: one nginx instance with its own prefix in <dir>
  local name=$1 p="$dir/$1"
  mkdir -p "$p"
  # As root nginx would switch its workers to "nobody"; keep the caller's user so that the
  # sample and the cache directory are theirs.
  cat >"$p/nginx.conf" <<EOF
$([ "$(id -u)" -eq 0 ] && echo "user root root;")
daemon off;
worker_processes 1;
pid $p/nginx.pid;
error_log $dir/$name.err warn;
events { worker_connections 1024; }
http {
  types { application/vnd.apple.mpegurl m3u8; video/mp2t ts; application/octet-stream key; }
  default_type application/octet-stream;
  log_format tier '\$remote_addr \$request_uri \$status \$body_bytes_sent \$upstream_cache_status';
  access_log $dir/$name.access.log tier;
  sendfile on;
  keepalive_timeout 65;
  keepalive_requests 10000;
  client_body_temp_path $p/client_body;
  proxy_temp_path $p/proxy;
  fastcgi_temp_path $p/fastcgi;
  uwsgi_temp_path $p/uwsgi;
  scgi_temp_path $p/scgi;
$2
}
EOF
  "$nginx_bin" -t -q -p "$p" -e "$dir/$name.err" -c "$p/nginx.conf" \
    || fail "$name: nginx rejects its configuration"
  start "$name" "$nginx_bin" -p "$p" -e "$dir/$name.err" -c "$p/nginx.conf"
}

# The origin: the sample's files, and the live presentation behind /live/. The live playlists
# name "~" and "@" URLs, so skerir fetches them through the cache tier like the VOD sample.
start live python3 "$here/scripts/live-origin.py" --address "${live_addr%:*}" --port "$LIVE_PORT" \
  --sample "$here/sample" --presentation vod/cache --base-url "http://~"
nginx origin "
  etag off;
  server {
    listen $origin_addr;
    root $here/sample;
    location /live/ { proxy_pass http://$live_addr; }
  }"

# The cache tier. Each node keeps its own copy of what it served; skerir's rings hash a
# presentation's key (its first two path components) to one node, so the copies rarely overlap.
# The lock lets one request per missing segment through to the origin while the others wait for
# the copy. Segments never change; playlists are kept for a second, which spares the origin a
# herd of players and stays well inside a live playlist's target duration. With a rate limit,
# cached segments go out a quarter second's worth at a time rather than in bursts a second apart.
chunk_line=""
[ "$rate" -gt 0 ] && chunk_line="sendfile_max_chunk $((rate / 4 > 1024 ? rate / 4 : 1024));"
for i in 0 1; do
  c=${caches[$i]}
  nginx "cache$((i + 1))" "
  proxy_cache_path $dir/cache$((i + 1))/cache levels=1:2 keys_zone=hls:10m max_size=1g
                   inactive=1d use_temp_path=off;
  upstream origin { server $origin_addr; keepalive 16; }
  server {
    listen $c;
    limit_rate $rate;
    $chunk_line
    add_header X-Cache-Status \$upstream_cache_status always;
    proxy_http_version 1.1;
    proxy_set_header Connection \"\";
    proxy_set_header Host $origin_addr;
    # The origin sees each node at its own address, in its log too.
    proxy_bind ${c%:*};
    proxy_cache hls;
    # skerir names the node itself as Host: the path alone keys a copy.
    proxy_cache_key \$request_uri;
    proxy_cache_lock on;
    proxy_cache_lock_timeout 60s;
    proxy_cache_lock_age 60s;
    proxy_cache_use_stale error timeout updating http_500 http_502 http_503 http_504;
    location / {
      proxy_pass http://origin;
      proxy_cache_valid 200 1d;
    }
    location ~ \\.m3u8\$ {
      proxy_pass http://origin;
      proxy_cache_valid 200 1s;
      proxy_ignore_headers Cache-Control Expires;
    }
  }"
done

ring=$(IFS=,; echo "${caches[*]}")
for i in "${!skerirs[@]}"; do
  # Upstreams are the cache tier only: every playlist and segment a client can name through
  # this layout goes through it.
  start "skerir$((i + 1))" "$skerir" "$buffer" --listen "${skerirs[$i]}" --upstream-allow "$ring"
done

for a in "$origin_addr" "$live_addr" "${caches[@]}" "${skerirs[@]}"; do wait_open "$a"; done
for a in "${skerirs[@]}"; do
  answer=$(curl -sS --max-time 10 "http://$a/update-cache-map?chunk=$ring&playlist=$ring") \
    || fail "$a: the cache maps could not be pushed"
  [ "$answer" = '"OK"' ] || fail "$a refused the cache maps: $answer"
done

# HAProxy. leastconn: a stream holds its connection for as long as it plays, and every stream
# costs about the same (one upstream session, one buffer), so open connections are the load;
# round robin would count requests and pile new streams onto an instance still busy with old
# ones, and hashing the URL would pin every viewer of a channel to one instance, for nothing,
# since instances share no downloads (the cache tier does that). The client and server
# time-outs count idleness, not duration: a stream that keeps flowing is never cut, and a
# minute is well beyond skerir's own 15 s without data and a player pausing its reads.
servers=""
for i in "${!skerirs[@]}"; do servers+="  server skerir$((i + 1)) ${skerirs[$i]} check
"; done
cat >"$dir/haproxy.cfg" <<EOF
global
  log stderr format raw local0 info
  # For the operator: "show stat", or "set server skerir/skerir1 state drain" before an upgrade.
  stats socket $dir/haproxy.sock mode 600 level admin

defaults
  mode http
  log global
  option httplog
  option dontlognull
  timeout connect 3s
  timeout http-request 10s
  timeout queue 10s
  timeout client 1m
  timeout server 1m
  timeout check 2s
  # A refused connection (an instance that has died since its last check) goes to another.
  retries 2
  option redispatch

frontend streams
  bind $haproxy_addr
  # The maps are pushed to every instance at its own address; through the balancer an update
  # would reach one instance and split the fleet.
  http-request deny if { path /update-cache-map }
  default_backend skerir

backend skerir
  balance leastconn
  option httpchk GET /watchdog
  http-check expect status 200
  # Checked every second; two failures mark an instance down, two successes bring it back.
  default-server inter 1s fall 2 rise 2
$servers
EOF
haproxy -q -c -f "$dir/haproxy.cfg" >/dev/null || fail "haproxy rejects its configuration"
start haproxy haproxy -db -f "$dir/haproxy.cfg"
wait_open "$haproxy_addr"

{
  echo "haproxy $haproxy_addr ${pids[-1]}"
  for i in "${!names[@]}"; do
    case ${names[$i]} in
      origin) echo "origin $origin_addr ${pids[$i]}" ;;
      live) echo "live $live_addr ${pids[$i]}" ;;
      cache*) echo "${names[$i]} ${caches[${names[$i]#cache} - 1]} ${pids[$i]}" ;;
      skerir*) echo "${names[$i]} ${skerirs[${names[$i]#skerir} - 1]} ${pids[$i]}" ;;
    esac
  done
} >"$dir/layout"

stream_url() {  # stream_url <playlist URL>
  echo "http://$haproxy_addr/stream?url=$(python3 -c \
    'import sys, urllib.parse as u; print(u.quote(sys.argv[1], safe=""))' "$1")"
}
cat <<EOF
scale-out: files in $dir
$(sed 's/^/  /' "$dir/layout")
  vod:   $(stream_url "http://~/vod/cache/master.m3u8")
  live:  $(stream_url "http://~/live/master.m3u8")
scale-out: ready
EOF

# Members may die (that is what the tiers above them are for): say so and carry on until a
# signal or until none is left.
while [ -n "$(jobs -rp)" ]; do
  gone=""
  wait -n -p gone 2>/dev/null && status=0 || status=$?
  for i in "${!pids[@]}"; do
    [ "${pids[$i]}" = "$gone" ] && echo "scale-out: ${names[$i]} (pid $gone) exited, status $status"
  done
done
