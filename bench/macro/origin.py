"""The origin of the macro benchmark: nginx serving the cached media and the playlists (over
plain HTTP, and over TLS on a second port with a certificate made at start), and a live
playlist that advances one segment per target duration.

nginx does all the serving, segments and playlists alike, so that a thousand clients' requests
never queue behind Python. The live "origin" is only a loop that rewrites one playlist file
atomically (write, then rename) every target duration; its segment URLs are unique per
sequence number (/live/<seq>/seg_NNNN.ts) and nginx maps them back onto the looped files.
"""

import os
import signal
import socket
import subprocess
import sys
import time

LIVE_WINDOW = 4  # segments listed in the live playlist


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, timeout):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=0.5).close()
            return True
        except OSError:
            time.sleep(0.05)
    return False


NGINX_CONF = """
daemon off;
master_process on;
user root;
worker_processes 2;
worker_rlimit_nofile 65536;
pid {tmp}/nginx.pid;
error_log {tmp}/nginx-error.log warn;
events {{ worker_connections 16384; multi_accept on; }}
http {{
  access_log off;
  sendfile on;
  tcp_nopush on;
  tcp_nodelay on;
  keepalive_timeout 120s;
  keepalive_requests 1000000;
  client_body_temp_path {tmp}/client_body;
  proxy_temp_path {tmp}/proxy;
  fastcgi_temp_path {tmp}/fastcgi;
  uwsgi_temp_path {tmp}/uwsgi;
  scgi_temp_path {tmp}/scgi;
  types {{
    application/vnd.apple.mpegurl m3u8;
    video/mp2t ts;
    application/octet-stream bin;
  }}
  server {{
    listen 127.0.0.1:{port} backlog=4096;
    listen 127.0.0.1:{tls_port} ssl backlog=4096;
    ssl_certificate {tmp}/origin.crt;
    ssl_certificate_key {tmp}/origin.key;
    ssl_protocols TLSv1.2 TLSv1.3;
    ssl_session_cache shared:tls:10m;
    root {media};
    location /pl/ {{
      alias {tmp}/pl/;
      add_header Cache-Control no-cache;
    }}
    location /live/ {{
      rewrite "^/live/\\d+/(seg_\\d+\\.ts)$" /live-loop/$1 last;
      return 404;
    }}
    location /live-loop/ {{
      internal;
      alias {media}/live/;
    }}
  }}
}}
"""


class Nginx:
    def __init__(self, tmp, media):
        self.tmp = tmp
        self.port = free_port()
        self.tls_port = free_port()
        self.origin = "http://127.0.0.1:%d" % self.port
        self.tls_origin = "https://127.0.0.1:%d" % self.tls_port
        # A self-signed certificate for the address, made for this run; clients trust it through
        # their environment (see trust_env).
        self.cert = os.path.join(tmp, "origin.crt")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj",
                        "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                        "-keyout", os.path.join(tmp, "origin.key"), "-out", self.cert],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.makedirs(os.path.join(tmp, "pl"), exist_ok=True)
        self.conf = os.path.join(tmp, "nginx.conf")
        with open(self.conf, "w") as f:
            f.write(NGINX_CONF.format(tmp=tmp, media=media, port=self.port,
                                      tls_port=self.tls_port))
        self.proc = None

    def trust_env(self):
        """The environment of a client that trusts this origin's certificate: skerir reads
        SSL_CERT_FILE (through OpenSSL's default paths); curl reads CURL_CA_BUNDLE."""
        return dict(os.environ, SSL_CERT_FILE=self.cert, CURL_CA_BUNDLE=self.cert)

    def start(self):
        self.proc = subprocess.Popen(["nginx", "-p", self.tmp, "-c", self.conf],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                     start_new_session=True)
        if not wait_port(self.port, 10) or not wait_port(self.tls_port, 10):
            raise RuntimeError("nginx did not start; see %s/nginx-error.log" % self.tmp)

    def pids(self):
        """The master and its workers."""
        out = [self.proc.pid]
        try:
            out += [int(p) for p in open("/proc/%d/task/%d/children" %
                                         (self.proc.pid, self.proc.pid)).read().split()]
        except OSError:
            pass
        return out

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()


def live_playlist(origin, segments, newest_seq):
    """The live media playlist whose newest segment has sequence number newest_seq (>= 1)."""
    first = max(1, newest_seq - LIVE_WINDOW + 1)
    lines = ["#EXTM3U", "#EXT-X-VERSION:3",
             "#EXT-X-TARGETDURATION:%d" % int(segments[0]["duration"] + 0.5),
             "#EXT-X-MEDIA-SEQUENCE:%d" % first]
    for seq in range(first, newest_seq + 1):
        s = segments[(seq - 1) % len(segments)]
        lines.append("#EXTINF:%.6f," % s["duration"])
        lines.append("%s/live/%d/%s" % (origin, seq, s["file"]))
    return "\n".join(lines) + "\n"


def run_live(origin, segments, path, target_duration):
    """Runs until killed: publishes segment n at start + (n - LIVE_WINDOW) * target_duration."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    start = time.monotonic()
    newest = LIVE_WINDOW
    while True:
        text = live_playlist(origin, segments, newest)
        with open(path + ".tmp", "w") as f:
            f.write(text)
        os.rename(path + ".tmp", path)
        newest += 1
        # Absolute schedule: no drift however long a rewrite takes.
        time.sleep(max(0.0, start + (newest - LIVE_WINDOW) * target_duration - time.monotonic()))
