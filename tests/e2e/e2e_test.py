#!/usr/bin/env python3
"""skerir end to end with real media: the real binary, nginx serving the sample, the looping
live origin, and ffprobe judging the output.

Scenarios (--scenario, comma-separated; default all):
  harness  the sample, the origins and the output checks themselves, including checks that
           must fail on broken output; needs no stream endpoint
  clear    the clear VOD sample through /stream, read until skerir closes
  aes      the AES-128 sample the same way; its output must be the clear segments byte for byte
  live     the looping live origin, read for 20 s
  cache    the placeholder-host sample through two nginx cache servers; the server in use is
           stopped mid-stream and the stream must finish through the other

Each stream scenario starts a fresh skerir on its fixed port 7744, so that adaptive switching
starts from the lowest variant every time.

Usage: e2e_test.py --skerir build/skerir [--scenario clear,aes] [--keep]
"""

import argparse
import http.client
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.parse
import zlib

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import media_check as mc  # noqa: E402
from harness import (Failure, Processes, free_port, http_request,  # noqa: E402
                     require_free_port, wait_port)

REPO = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
SAMPLE_DIR = os.path.join(REPO, "sample")
SKERIR_PORT = 7744
SAMPLE_PORT = 7780  # written into the sample playlists
BUFFER_BYTES = 16 * 1024 * 1024
SAMPLE_LENGTH = 15  # segments per variant
LIVE_SECONDS = 20
LIVE_WINDOW = 6
# The live loop starts with the presentation's last window, so the first new segment wraps
# around to the start: the pull always crosses a loop (a timestamp discontinuity, which skerir
# must pass through untouched) and the checks cut the output there.
LIVE_OFFSET = SAMPLE_LENGTH - LIVE_WINDOW
# A live pull of 20 s gets the first window at once and about one segment per 2 s after it;
# fewer than this many whole segments means skerir did not follow the moving playlist.
LIVE_MIN_SEGMENTS = LIVE_WINDOW + 3
# Bytes per second each cache server sends, in quarter-second pieces: a segment of the lowest
# variant (about 35 KB) takes a second, so the 15-segment stream is surely still running when
# the server in use is stopped after the first segment, while the pauses stay far below the
# 2 s after which skerir would give up on a transfer, and the speed (about 270 kbit/s) above
# the half of the lowest variant's bitrate under which it would count a sudden drop.
CACHE_RATE = 32768
STREAM_DEADLINE = 240.0

SCENARIOS = ("harness", "clear", "aes", "live", "cache")


def log(text):
    print(text, flush=True)


def stream_path(master_url):
    return "/stream?url=" + urllib.parse.quote(master_url, safe="")


def ensure_tools():
    missing = [t for t in ("nginx", "ffmpeg", "ffprobe", "openssl")
               if not shutil.which(t) and not os.path.exists("/usr/sbin/" + t)]
    if missing:
        log("installing %s" % " ".join(missing))
        subprocess.run(["bash", os.path.join(REPO, "scripts", "setup.sh"), "media"], check=True)


class Bench:
    """The processes and files of one run; everything is stopped and removed on every path."""

    def __init__(self, args):
        self.args = args
        self.procs = Processes()
        self.workdir = tempfile.mkdtemp(prefix="skerir-e2e.")
        self.catalogue = mc.Catalogue(SAMPLE_DIR)
        self.origin = None

    def close(self, failed):
        self.procs.stop_all()
        if failed or self.args.keep:
            self.procs.save_logs(self.workdir)
            log("outputs and logs kept in %s" % self.workdir)
        else:
            shutil.rmtree(self.workdir, ignore_errors=True)

    # --- servers

    def start_origin(self, port, name, rate=None):
        argv = ["bash", os.path.join(REPO, "scripts", "sample-origin.sh"), "--port", str(port)]
        if rate:
            argv += ["--rate", str(rate)]
        p = self.procs.start(name, argv)
        wait_port(port, p)
        return p

    def sample_origin(self):
        if self.origin is None or not self.origin.running():
            require_free_port(SAMPLE_PORT, "the sample origin (its playlists name it)")
            self.origin = self.start_origin(SAMPLE_PORT, "nginx-%d" % SAMPLE_PORT)
        return self.origin

    def live_origin(self):
        p = self.procs.start("live-origin", [sys.executable,
                                             os.path.join(REPO, "scripts", "live-origin.py"),
                                             "--port", "0", "--window", str(LIVE_WINDOW),
                                             "--offset", str(LIVE_OFFSET)])
        _, m = p.wait_for(r"^live-origin: (http://127\.0\.0\.1:(\d+)/live/master\.m3u8)", "out")
        wait_port(int(m.group(2)), p)
        return p, m.group(1)

    def skerir(self, name, buffer_bytes=BUFFER_BYTES):
        require_free_port(SKERIR_PORT, "skerir")
        p = self.procs.start(name, [self.args.skerir, str(buffer_bytes)])
        wait_port(SKERIR_PORT, p)
        return p

    def stop_skerir(self, p):
        """Stops a skerir that must still be running: one that exited by itself crashed."""
        if not p.running():
            p.wait_exit(10)
            raise Failure("skerir exited by itself (status %s) during the test\n%s"
                          % (p.proc.returncode, p.tail()))
        p.stop()
        # The next skerir binds the same port; make sure this one has let go of it.
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            try:
                require_free_port(SKERIR_PORT, "skerir")
                return
            except Failure:
                time.sleep(0.1)
        raise Failure("port %d still accepts after skerir has exited" % SKERIR_PORT)

    def open_stream(self, master_url):
        reply = http_request(SKERIR_PORT, stream_path(master_url))
        if reply.status != 200:
            reply.close()
            raise Failure("/stream answered %d %s" % (reply.status, reply.reason))
        return reply

    def save(self, name, body):
        path = os.path.join(self.workdir, name)
        with open(path, "wb") as f:
            f.write(body)
        return path


# --- scenarios ---------------------------------------------------------------------------------


def run_vod(bench, kind):
    """Streams vod/<kind> through a fresh skerir; returns (delivered pairs, output)."""
    bench.sample_origin()
    skerir = bench.skerir("skerir-" + kind)
    try:
        master = "http://127.0.0.1:%d/vod/%s/master.m3u8" % (SAMPLE_PORT, kind)
        reply = bench.open_stream(master)
        try:
            body = reply.read_to_end(STREAM_DEADLINE)
        finally:
            reply.close()
        # The last segment's line comes before skerir closes the stream; the reader thread
        # may still be behind.
        skerir.wait_for(r"^got chunk \(seq %d\) " % SAMPLE_LENGTH, "out", timeout=30)
    finally:
        bench.stop_skerir(skerir)
    delivery = mc.match_delivery(body, mc.delivered_chunks(skerir.lines("out")), bench.catalogue,
                                 live=False, resumed=mc.resume_points(skerir.lines("err")))
    mc.check_vod_sequence(delivery, SAMPLE_LENGTH)
    for line in mc.check_media(body, delivery, bench.workdir, kind, live=False):
        log("  " + line)
    log("  %s: %d bytes, segments %s" % (kind, len(body), delivery.pairs()))
    return delivery.pairs(), body


def scenario_clear(bench, results):
    results["clear"] = run_vod(bench, "clear")


def scenario_aes(bench, results):
    results["aes"] = run_vod(bench, "aes")
    if "clear" in results:
        (clear_pairs, clear_body), (aes_pairs, aes_body) = results["clear"], results["aes"]
        if clear_pairs == aes_pairs:
            if clear_body != aes_body:
                raise Failure("same variants and segments, but the encrypted stream's output "
                              "differs from the clear one")
            log("  aes: byte-identical to the clear output (same variants and segments)")
        else:
            # Each output already equals the clear bytes of its own segments; only the
            # adaptive choices differed between the two runs.
            log("  aes: variant choices differed from the clear run (%s vs %s); every segment "
                "was compared with its clear twin instead" % (aes_pairs, clear_pairs))


def scenario_live(bench, results):
    bench.sample_origin()
    _, master = bench.live_origin()
    skerir = bench.skerir("skerir-live")
    try:
        reply = bench.open_stream(master)
        try:
            body = reply.read_for(LIVE_SECONDS)
        finally:
            reply.close()
        if skerir.running():
            # Hanging up must end the stream: skerir notices at its next write.
            skerir.wait_for(r"^mpl finish and cleanup!$", "err", timeout=60)
    finally:
        bench.stop_skerir(skerir)
    bench.save("live.body.ts", body)
    delivery = mc.match_delivery(body, mc.delivered_chunks(skerir.lines("out")), bench.catalogue,
                                 live=True, resumed=mc.resume_points(skerir.lines("err")))
    mc.check_live_sequence(delivery, LIVE_MIN_SEGMENTS)
    for line in mc.check_media(body, delivery, bench.workdir, "live", live=True):
        log("  " + line)
    log("  live: %d bytes in %d s, segments %s, %d bytes of a cut segment at the end"
        % (len(body), LIVE_SECONDS, delivery.pairs(), delivery.tail_bytes))


def cache_server_for(key, ring):
    """The server skerir's cache map picks for `key` from a ring of live servers."""
    crc = zlib.crc32(key.encode("utf-8"))
    return ring[((crc >> 16) & 0x7FFF) % len(ring)]


def start_cache_server(bench, exclude):
    """Starts a rate-limited nginx on a free port; returns {"127.0.0.1:port": process}."""
    for attempt in range(3):
        port = free_port()
        name = "127.0.0.1:%d" % port
        if name in exclude:
            continue
        try:
            return {name: bench.start_origin(port, "cache-%d" % port, rate=CACHE_RATE)}
        except Failure:
            # Another program may have taken the port between our probe and nginx's bind.
            if attempt == 2:
                raise
    raise Failure("no free port for a cache server")


def scenario_cache(bench, results):
    servers = {}
    while len(servers) < 2:
        servers.update(start_cache_server(bench, exclude=servers))
    ring = list(servers)
    # Segments are at /vod/clear/..., variant playlists at /vod/cache/...: the map keys.
    segment_server = cache_server_for("vod/clear", ring)
    other = [s for s in ring if s != segment_server][0]

    skerir = bench.skerir("skerir-cache")
    try:
        mapping = ",".join(ring)
        reply = http_request(SKERIR_PORT, "/update-cache-map?chunk=%s&playlist=%s"
                             % (mapping, mapping))
        try:
            status, answer = reply.status, reply.read_to_end(30)
        finally:
            reply.close()
        if status != 200 or answer != b'"OK"\n':
            raise Failure("/update-cache-map answered %d %r" % (status, answer))

        reply = bench.open_stream("http://~/vod/cache/master.m3u8")
        try:
            # Event: the first segment has arrived through a cache server. Stop that server
            # while the rest of the stream is still to come.
            first, _ = skerir.wait_for(r"^got chunk \(seq \d+\) ", "out", timeout=60)
            lines = skerir.lines("out")[:first + 1]
            used = [l.rsplit(" ", 1)[1] for l in lines
                    if l.startswith("for url /vod/clear/") and " selected server: " in l]
            if not used or used[-1] != segment_server:
                raise Failure("skerir fetched the first segment from %s; the map's CRC picks %s"
                              % (used[-1] if used else "no cache server", segment_server))
            log("  cache: segments come from %s (the CRC's pick); stopping it gracefully"
                % segment_server)
            server = servers[segment_server]
            server.send_signal(signal.SIGQUIT)
            server.wait_exit(60)
            body = reply.read_to_end(STREAM_DEADLINE)
        finally:
            reply.close()
        skerir.wait_for(r"^got chunk \(seq %d\) " % SAMPLE_LENGTH, "out", timeout=30)
    finally:
        bench.stop_skerir(skerir)

    out = skerir.lines("out")
    invalidated = [i for i, l in enumerate(out)
                   if l == "Invalidating cache server " + segment_server]
    if not invalidated:
        raise Failure("skerir never logged \"Invalidating cache server %s\"" % segment_server)
    later = mc.delivered_chunks(out[invalidated[0]:])
    if not later:
        raise Failure("no segment was fetched after %s was invalidated: the server was stopped "
                      "too late to test fail-over" % segment_server)
    switched = [l for l in out[invalidated[0]:] if l.endswith(" selected server: " + other)]
    if not switched:
        raise Failure("after the invalidation skerir never selected %s" % other)

    delivery = mc.match_delivery(body, mc.delivered_chunks(out), bench.catalogue, live=False,
                                 resumed=mc.resume_points(skerir.lines("err")))
    mc.check_vod_sequence(delivery, SAMPLE_LENGTH)
    for line in mc.check_media(body, delivery, bench.workdir, "cache", live=False):
        log("  " + line)
    log("  cache: %d segments after invalidating %s, through %s"
        % (len(later), segment_server, other))


def scenario_harness(bench, results):
    check_playlists()
    check_sample(bench)
    check_origins(bench)
    check_checks(bench)
    skerir = bench.skerir("skerir-plumbing")
    try:
        reply = http_request(SKERIR_PORT, "/stats.json")
        try:
            status, body = reply.status, reply.read_to_end(30)
        finally:
            reply.close()
        if status != 200 or not body.strip().startswith(b"{"):
            raise Failure("/stats.json answered %d %r" % (status, body[:200]))
        log("  skerir starts on port %d and answers /stats.json" % SKERIR_PORT)
    finally:
        bench.stop_skerir(skerir)


# --- harness self-checks ------------------------------------------------------------------------


def check_sample(bench):
    """Every encrypted segment decrypts (AES-128-CBC, zero IV) to its clear twin."""
    key_path = os.path.join(SAMPLE_DIR, "vod", "aes", "sample.key")
    with open(key_path, "rb") as f:
        key = f.read()
    if len(key) != 16:
        raise Failure("%s holds %d bytes, not 16" % (key_path, len(key)))
    count = 0
    for path, seg in sorted(bench.catalogue.by_path.items()):
        if not path.startswith("vod/aes/"):
            continue
        r = subprocess.run(["openssl", "enc", "-d", "-aes-128-cbc", "-K", key.hex(),
                            "-iv", "0" * 32, "-in", seg.served_path],
                           capture_output=True, timeout=60)
        if r.returncode != 0 or r.stdout != seg.clear_bytes():
            raise Failure("%s does not decrypt to %s" % (seg.served_path, seg.clear_path))
        count += 1
    if count != 3 * SAMPLE_LENGTH:
        raise Failure("found %d encrypted segments, expected %d" % (count, 3 * SAMPLE_LENGTH))
    log("  sample: %d encrypted segments decrypt to their clear twins" % count)


def check_playlists():
    """The sample's playlists fit the way skerir reads them: it takes every line of a master
    playlist other than a stream-info line for a variant URI, resolves no relative URI, never
    fetches a segment numbered 0, and reads a key URL up to the end of its line."""
    for kind in ("clear", "aes", "cache"):
        root = os.path.join(SAMPLE_DIR, "vod", kind)
        with open(os.path.join(root, "master.m3u8"), encoding="utf-8") as f:
            text = f.read()
        lines = text.split("\n")[:-1]
        info, uris = lines[1::2], lines[2::2]
        if not text.endswith("\n") or lines[0] != "#EXTM3U" or len(info) != 3 or \
                len(uris) != 3 or any(not l.startswith("#EXT-X-STREAM-INF:BANDWIDTH=")
                                      for l in info) or \
                any(not u.startswith("http://") for u in uris):
            raise Failure("vod/%s/master.m3u8 is not #EXTM3U and three stream-info and absolute "
                          "URI line pairs:\n%s" % (kind, text))
        for n in (1, 2, 3):
            path = os.path.join(root, "v%d.m3u8" % n)
            with open(path, encoding="utf-8") as f:
                lines = f.read().split("\n")[:-1]
            keys = [l for l in lines if l.startswith("#EXT-X-KEY:")]
            problems = [
                ("no blank line", "" not in lines),
                ("sequence from 1", "#EXT-X-MEDIA-SEQUENCE:1" in lines),
                ("end mark last", lines[-1] == "#EXT-X-ENDLIST"),
                ("absolute URIs", all(l.startswith("http://") for l in lines
                                      if not l.startswith("#"))),
                ("one key tag with URI last" if kind == "aes" else "no key tag",
                 (len(keys) == 1 and keys[0].endswith('"') and ",URI=\"" in keys[0]
                  and "IV=" not in keys[0]) if kind == "aes" else not keys),
            ]
            failed = [what for what, ok in problems if not ok]
            if failed:
                raise Failure("%s breaks: %s" % (path, ", ".join(failed)))
    log("  playlists: masters hold only stream-info and URI lines; media playlists are "
        "absolute, numbered from 1, ended, keyed as skerir reads them")


def fetch(port, path):
    reply = http_request(port, path)
    try:
        return reply.status, reply.headers, reply.read_to_end(30)
    finally:
        reply.close()


def check_origins(bench):
    bench.sample_origin()
    expect = {
        "/vod/clear/master.m3u8": "application/vnd.apple.mpegurl",
        "/vod/aes/v2.m3u8": "application/vnd.apple.mpegurl",
        "/vod/aes/sample.key": "application/octet-stream",
        "/vod/clear/v3/seg_015.ts": "video/mp2t",
    }
    for path, ctype in expect.items():
        status, headers, body = fetch(SAMPLE_PORT, path)
        with open(os.path.join(SAMPLE_DIR, path.lstrip("/")), "rb") as f:
            want = f.read()
        if status != 200 or headers.get("content-type") != ctype or body != want:
            raise Failure("nginx served %s as %d %s (%d bytes), expected 200 %s (%d bytes)"
                          % (path, status, headers.get("content-type"), len(body), ctype,
                             len(want)))
    # skerir keeps one connection per segment client: the origin must keep it alive.
    conn = http.client.HTTPConnection("127.0.0.1", SAMPLE_PORT, timeout=30)
    try:
        for n in (1, 2):
            conn.request("GET", "/vod/clear/v1/seg_00%d.ts" % n)
            r = conn.getresponse()
            r.read()
            if r.status != 200 or r.getheader("Connection", "").lower() != "keep-alive":
                raise Failure("nginx does not keep the connection alive (%d, %r)"
                              % (r.status, r.getheader("Connection")))
    finally:
        conn.close()
    log("  nginx origin: MIME types, bodies and keep-alive as expected")

    live, master = bench.live_origin()
    port = int(urllib.parse.urlsplit(master).port)
    status, _, text = fetch(port, "/live/master.m3u8")
    lines = text.decode().splitlines()
    variants = [l for l in lines[1:] if not l.startswith("#")]
    if status != 200 or lines[0] != "#EXTM3U" or len(variants) != 3 or \
            any(not v.startswith("http://127.0.0.1:%d/live/" % port) for v in variants) or \
            len(lines) != 1 + 2 * len(variants):
        raise Failure("live master playlist unexpected:\n%s" % text.decode())

    def window():
        status, _, text = fetch(port, urllib.parse.urlsplit(variants[0]).path)
        lines = text.decode().splitlines()
        seq = int([l for l in lines if l.startswith("#EXT-X-MEDIA-SEQUENCE:")][0].split(":")[1])
        uris = [l for l in lines if l and not l.startswith("#")]
        if status != 200 or len(uris) != LIVE_WINDOW or seq < 1:
            raise Failure("live media playlist unexpected:\n%s" % text.decode())
        for uri in uris:
            bench.catalogue.segment(uri)  # fails on a URI outside the sample
        return seq, uris

    seq0, uris0 = window()
    deadline = time.monotonic() + 30
    while True:
        seq, uris = window()
        if seq > seq0:
            break
        if time.monotonic() > deadline:
            raise Failure("the live playlist did not advance in 30 s (sequence %d)" % seq0)
        time.sleep(0.25)
    if uris[:LIVE_WINDOW - (seq - seq0)] != uris0[seq - seq0:]:
        raise Failure("the live window did not slide: %s then %s" % (uris0, uris))
    live.stop()
    log("  live origin: the window slides from sequence %d to %d" % (seq0, seq))


def expect_failure(what, fn, *args):
    try:
        fn(*args)
    except Failure as e:
        return str(e).splitlines()[0]
    raise Failure("the output checks accepted %s" % what)


def fake_log(segments, seqs, sizes=None):
    """skerir's log lines for delivering `segments` as sequence numbers `seqs`."""
    out = []
    for i, (seg, seq) in enumerate(zip(segments, seqs)):
        size = sizes[i] if sizes else seg.served_size()
        url = "http://127.0.0.1:%d/%s" % (SAMPLE_PORT, os.path.relpath(seg.served_path,
                                                                       SAMPLE_DIR))
        out.append("got chunk (seq %d) from %s with size %d, speed inf kbps" % (seq, url, size))
    return out


def check_checks(bench):
    """The output checks accept what skerir should deliver and reject plausible faults."""
    cat = bench.catalogue
    # A typical adaptive run: the first segment from the lowest variant, the rest from the top
    # one, here from the encrypted copy (the log names the encrypted files and their sizes).
    good = cat.segments("clear", "v1")[:1] + cat.segments("aes", "v3")[1:]
    seqs = list(range(1, SAMPLE_LENGTH + 1))

    def vod(segments, seqs, body, name):
        delivery = mc.match_delivery(body, mc.delivered_chunks(fake_log(segments, seqs)), cat,
                                     live=False)
        mc.check_vod_sequence(delivery, SAMPLE_LENGTH)
        mc.check_media(body, delivery, bench.workdir, name, live=False)

    def body_of(segments):
        return b"".join(s.clear_bytes() for s in segments)

    vod(good, seqs, body_of(good), "selfcheck-good")

    def probe_only(segments, name):
        body = body_of(segments)
        path = bench.save(name + ".ts", body)
        mc.probe(path, sum(s.duration for s in segments), name)

    missing = good[:7] + good[8:]
    reasons = [
        expect_failure("a missing segment", vod, missing, seqs[:7] + seqs[8:], body_of(missing),
                       "selfcheck-missing"),
        expect_failure("a hole in the timestamps", probe_only, missing, "selfcheck-hole"),
        expect_failure("a repeated segment", probe_only, good[:5] + good[4:], "selfcheck-repeat"),
        expect_failure("a changed byte", vod, good, seqs,
                       body_of(good)[:100000] + b"\x47" + body_of(good)[100001:],
                       "selfcheck-byte"),
        expect_failure("bytes after the last segment", vod, good, seqs,
                       body_of(good) + b"\x47" * 188, "selfcheck-extra"),
        expect_failure("half a segment lost", probe_only, good[:5] + [_Half(good[5])] + good[6:],
                       "selfcheck-cut"),
    ]

    # A wrong size in the log (a segment cut short but reported as whole, or the reverse).
    sizes = [s.served_size() for s in good]
    sizes[3] -= 16
    lines = fake_log(good, seqs, sizes)
    reasons.append(expect_failure(
        "a logged size that differs from the origin's",
        lambda: mc.match_delivery(body_of(good), mc.delivered_chunks(lines), cat, live=False)))
    # ... unless skerir said it resumed that transfer 16 bytes in.
    retry = ["retry chunk get from %s starting from byte 16" % mc.delivered_chunks(lines)[3].url]
    mc.match_delivery(body_of(good), mc.delivered_chunks(lines), cat, live=False,
                      resumed=mc.resume_points(retry))

    # Live: a looping window that wraps from segment 15 to 1, cut off inside a segment.
    loop = [cat.segments("clear", "v2")[(n - 1) % SAMPLE_LENGTH] for n in range(11, 21)]
    live_seqs = list(range(11, 21))
    body = body_of(loop)[:-5000]
    delivery = mc.match_delivery(body, mc.delivered_chunks(fake_log(loop, live_seqs)), cat,
                                 live=True)
    mc.check_live_sequence(delivery, LIVE_MIN_SEGMENTS)
    runs = mc.check_media(body, delivery, bench.workdir, "selfcheck-live", live=True)
    if len(runs) != 2 or delivery.tail_bytes == 0:
        raise Failure("the live check did not cut the loop in two runs and a tail: %s" % runs)
    reasons.append(expect_failure("a live sequence gap", mc.check_live_sequence,
                                  _without(delivery, 4), 1))
    reasons.append(expect_failure("too few live segments", mc.check_live_sequence, delivery,
                                  len(delivery.items) + 1))
    log("  output checks: accept good VOD and live output, reject %d faults:" % len(reasons))
    for r in reasons:
        log("    - " + r)


class _Half:
    """A segment of which only the first half arrived."""

    def __init__(self, seg):
        self.duration = seg.duration
        self._data = seg.clear_bytes()[:len(seg.clear_bytes()) // 2 // 188 * 188]

    def clear_bytes(self):
        return self._data


def _without(delivery, index):
    d = mc.Delivery()
    d.items = delivery.items[:index] + delivery.items[index + 1:]
    return d


# --- main ---------------------------------------------------------------------------------------


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--skerir", required=True, help="the skerir binary")
    ap.add_argument("--scenario", default=",".join(SCENARIOS),
                    help="comma-separated subset of: " + ", ".join(SCENARIOS))
    ap.add_argument("--keep", action="store_true", help="keep outputs and logs")
    args = ap.parse_args()
    args.skerir = os.path.abspath(args.skerir)
    chosen = [s.strip() for s in args.scenario.split(",") if s.strip()]
    unknown = [s for s in chosen if s not in SCENARIOS]
    if unknown or not chosen:
        ap.error("unknown scenario %s" % unknown)
    if not os.access(args.skerir, os.X_OK):
        ap.error("no skerir binary at %s" % args.skerir)

    # A runner's time-out sends SIGTERM: clean up as on any other failure.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("e2e: terminated"))
    ensure_tools()
    bench = Bench(args)
    results = {}
    failed = True
    status = 1
    try:
        for name in SCENARIOS:
            if name in chosen:
                log("== %s" % name)
                started = time.monotonic()
                globals()["scenario_" + name](bench, results)
                log("   %s passed in %.1f s" % (name, time.monotonic() - started))
        failed = False
        status = 0
    except Failure as e:
        log("FAILED: %s" % e)
    finally:
        bench.close(failed)
    return status


if __name__ == "__main__":
    sys.exit(main())
