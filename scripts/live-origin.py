#!/usr/bin/env python3
"""A live origin made from a sample VOD presentation: sliding-window media playlists that
advance one segment per target duration and loop the presentation's segments for ever.

    GET /live/master.m3u8   the presentation's master playlist, variants pointing here
    GET /live/<name>.m3u8   the window of variant <name> (the VOD playlist's file stem: v1 ...)

The live playlists name the VOD playlists' absolute segment (and key) URLs, so the segments
themselves come from the sample origin (scripts/sample-origin.sh). Media sequence numbers start
at 1 when this server starts and grow by one per target duration; sequence n plays segment
((n - 1 + offset) mod count) of the VOD list, and all variants share the numbering, so a
variant switch continues where the last one stopped. A looped segment repeats its timestamps:
a player sees a jump back to the start at every loop, and the playlist marks it with
#EXT-X-DISCONTINUITY (skerir ignores the tag; whoever checks the output's timestamps must cut
it at the wrap).

HTTP/1.1 with Content-Length and keep-alive. Python standard library only.

Usage: scripts/live-origin.py [--address 127.0.0.1] [--port 7781] [--sample DIR]
                              [--presentation vod/clear] [--window 6] [--offset 0]
                              [--base-url URL]
--port 0 picks a free port; the first line on standard output names the master URL either way.
--base-url is what the master names its variants under (default http://ADDRESS:PORT): with
http://~ and --presentation vod/cache, skerir fetches playlists and segments from its cache
servers, which forward /live/ here.
"""

import argparse
import http.server
import os
import sys
import time
import urllib.parse

DEFAULT_PORT = 7781
DEFAULT_WINDOW = 6


class Variant:
    """One variant of the looped presentation, read once from the VOD media playlist."""

    def __init__(self, name, stream_inf, text):
        self.name = name
        self.stream_inf = stream_inf
        self.target_duration = 2
        self.key_line = None
        self.segments = []  # (EXTINF line, absolute URI)
        extinf = None
        for line in text.splitlines():
            line = line.strip()
            if line.startswith("#EXT-X-TARGETDURATION:"):
                self.target_duration = int(line.split(":", 1)[1])
            elif line.startswith("#EXT-X-KEY:"):
                self.key_line = line
            elif line.startswith("#EXTINF:"):
                extinf = line
            elif line and not line.startswith("#"):
                self.segments.append((extinf or "#EXTINF:%d," % self.target_duration, line))
                extinf = None
        if not self.segments:
            raise ValueError("variant %s has no segments" % name)


def load_presentation(sample_dir, presentation):
    """Reads <sample_dir>/<presentation>/master.m3u8 and the media playlists it names. The
    absolute variant URLs are mapped back to files under sample_dir by their path."""
    master_path = os.path.join(sample_dir, presentation, "master.m3u8")
    with open(master_path, encoding="utf-8") as f:
        lines = [line.strip() for line in f if line.strip()]
    if not lines or lines[0] != "#EXTM3U":
        raise ValueError("%s is not a playlist" % master_path)
    variants = []
    stream_inf = None
    for line in lines[1:]:
        if line.startswith("#EXT-X-STREAM-INF:"):
            stream_inf = line
            continue
        path = urllib.parse.urlsplit(line).path.lstrip("/")
        name = os.path.splitext(os.path.basename(path))[0]
        with open(os.path.join(sample_dir, path), encoding="utf-8") as f:
            variants.append(Variant(name, stream_inf, f.read()))
    if not variants:
        raise ValueError("%s names no variant" % master_path)
    return variants


class LiveClock:
    """Maps wall-clock time since start to the first media sequence number of the window."""

    def __init__(self, step_seconds):
        self.start = time.monotonic()
        self.step = step_seconds

    def first_sequence(self):
        return 1 + int((time.monotonic() - self.start) // self.step)


def media_playlist(variant, first_seq, window, offset):
    out = [
        "#EXTM3U",
        "#EXT-X-VERSION:3",
        "#EXT-X-TARGETDURATION:%d" % variant.target_duration,
        "#EXT-X-MEDIA-SEQUENCE:%d" % first_seq,
    ]
    if variant.key_line:
        out.append(variant.key_line)
    count = len(variant.segments)
    for seq in range(first_seq, first_seq + window):
        index = (seq - 1 + offset) % count
        if index == 0 and seq > 1:
            out.append("#EXT-X-DISCONTINUITY")
        extinf, uri = variant.segments[index]
        out.append(extinf)
        out.append(uri)
    return "\n".join(out) + "\n"


def master_playlist(variants, base_url):
    out = ["#EXTM3U"]
    for v in variants:
        out.append(v.stream_inf or "#EXT-X-STREAM-INF:BANDWIDTH=0")
        out.append("%s/live/%s.m3u8" % (base_url, v.name))
    return "\n".join(out) + "\n"


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "live-origin"

    def do_GET(self):
        self.reply(with_body=True)

    def do_HEAD(self):
        self.reply(with_body=False)

    def reply(self, with_body):
        srv = self.server
        path = urllib.parse.urlsplit(self.path).path
        body = None
        if path == "/live/master.m3u8":
            body = master_playlist(srv.variants, srv.base_url)
        elif path.startswith("/live/") and path.endswith(".m3u8"):
            name = path[len("/live/"):-len(".m3u8")]
            variant = srv.by_name.get(name)
            if variant:
                body = media_playlist(variant, srv.clock.first_sequence(), srv.window,
                                      srv.offset)
        if body is None:
            payload = b"not found\n"
            self.send_response(404)
            self.send_header("Content-Type", "text/plain")
        else:
            payload = body.encode("utf-8")
            self.send_response(200)
            self.send_header("Content-Type", "application/vnd.apple.mpegurl")
            self.send_header("Cache-Control", "no-cache")
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        if with_body:
            self.wfile.write(payload)

    def log_message(self, fmt, *args):
        if self.server.verbose:
            sys.stderr.write("live-origin: %s\n" % (fmt % args))


class LiveServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--address", default="127.0.0.1")
    ap.add_argument("--port", type=int, default=DEFAULT_PORT)
    ap.add_argument("--base-url", help="prefix of the variant URLs in the master")
    ap.add_argument("--sample", default=os.path.join(here, "..", "sample"))
    ap.add_argument("--presentation", default="vod/clear")
    ap.add_argument("--window", type=int, default=DEFAULT_WINDOW)
    ap.add_argument("--offset", type=int, default=0,
                    help="segment (from 0) that sequence number 1 plays")
    ap.add_argument("--verbose", action="store_true", help="log every request on stderr")
    args = ap.parse_args()

    try:
        variants = load_presentation(os.path.abspath(args.sample), args.presentation)
    except (OSError, ValueError) as e:
        sys.exit("live-origin: cannot load the sample: %s (run scripts/make-sample.sh)" % e)
    try:
        server = LiveServer((args.address, args.port), Handler)
    except OSError as e:
        sys.exit("live-origin: cannot listen on %s:%d: %s" % (args.address, args.port, e))
    port = server.server_address[1]
    server.variants = variants
    server.by_name = {v.name: v for v in variants}
    server.base_url = (args.base_url or "http://%s:%d" % (args.address, port)).rstrip("/")
    server.window = args.window
    server.offset = args.offset
    server.verbose = args.verbose
    server.clock = LiveClock(variants[0].target_duration)
    print("live-origin: %s/live/master.m3u8 (%d variants, %d segments looped, window %d)"
          % (server.base_url, len(variants), len(variants[0].segments), args.window), flush=True)

    # SIGTERM ends the process by default; turn SIGINT (Ctrl-C) into a quiet exit too.
    try:
        server.serve_forever(poll_interval=0.2)
    except KeyboardInterrupt:
        pass
    finally:
        server.server_close()


if __name__ == "__main__":
    main()
