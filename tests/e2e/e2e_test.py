#!/usr/bin/env python3
"""skerir end to end with real media, nginx serving and ffprobe judging. Scenario "vod": the
AES-128 sample. Scenario "muxer": ffmpeg's own HLS output (relative URIs, a version tag,
fractional durations) under a master with relative variant URIs, over TLS behind a redirect.
Either way the body must be the clear segments skerir reports, byte for byte, and decode."""

import argparse, os, re, shutil, signal, socket, subprocess, sys, tempfile, time, urllib.parse

REPO = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
SEGMENTS = 15  # per variant, 2 s each


class Proc:
    """A child in its own process group, its output in files."""

    def __init__(self, workdir, name, *argv):
        self.path = os.path.join(workdir, name)
        with open(self.path + ".out", "wb") as out, open(self.path + ".err", "wb") as err:
            self.p = subprocess.Popen(argv, stdout=out, stderr=err, start_new_session=True)

    def lines(self, which="out"):
        with open(self.path + "." + which, errors="replace") as f:
            return f.read().splitlines()

    def wait_line(self, pattern, which="out", timeout=120):
        for _ in range(timeout * 10):
            if any(re.search(pattern, l) for l in self.lines(which)):
                return
            time.sleep(0.1)
        raise AssertionError("%s: no line matching %r" % (self.path, pattern))

    def wait_port(self, port):
        for _ in range(600):
            with socket.socket() as s:
                if s.connect_ex(("127.0.0.1", port)) == 0:
                    return self
            assert self.p.poll() is None, "%s exited: %s" % (self.path, self.lines("err")[-5:])
            time.sleep(0.1)
        raise AssertionError("nothing listens on %d" % port)

    def stop(self, sig=signal.SIGKILL):
        if self.p.poll() is None:
            os.killpg(self.p.pid, sig)
        self.p.wait(60)


def request(path, server=("127.0.0.1", 7744)):
    """GET on skerir's port; returns the body once skerir closes."""
    with socket.create_connection(server, timeout=240) as s:
        s.sendall(b"GET " + path.encode() + b" HTTP/1.1\r\n\r\n")
        data = b""
        while chunk := s.recv(65536):
            data += chunk
    return data.partition(b"\r\n\r\n")[2]


def check_media(body, names, workdir, name, root=os.path.join(REPO, "sample/vod/clear"),
                seconds=2 * SEGMENTS):
    """The body is the segment files named (v1/seg_001.ts ... under `root`), in order, and
    decodes cleanly to about `seconds` of H.264 and AAC."""
    expected = b"".join(open(os.path.join(root, n), "rb").read() for n in names)
    assert body == expected, "%s: %d bytes, %d expected" % (name, len(body), len(expected))
    path = os.path.join(workdir, name + ".ts")
    open(path, "wb").write(body)
    probe = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "stream=codec_name:format=duration",
                            "-of", "csv=p=0", path], capture_output=True, text=True)
    decode = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "null", "-"],
                            capture_output=True, text=True)
    codecs = sorted(set(f for f in probe.stdout.split() if f.isalnum()))
    duration = float(next(f for f in probe.stdout.split() + ["0"] if not f.isalnum()))
    assert not probe.stderr and not decode.stderr and codecs == ["aac", "h264"] \
        and abs(duration - seconds) < 1.5, probe.stdout + probe.stderr + decode.stderr
    print("%s: %d bytes, segments %s, %s s of h264+aac, decodes cleanly"
          % (name, len(body), " ".join(names), duration), flush=True)


def play(workdir, skerir_bin, procs, url, segment):
    """Streams `url` through a fresh skerir to its end: the body, and the names of the segments
    skerir reports fetching (the group of the `segment` pattern), in order."""
    skerir = Proc(workdir, "skerir", skerir_bin, "16777216").wait_port(7744)
    procs.append(skerir)
    body = request("/stream?url=" + urllib.parse.quote(url, safe=""))
    skerir.wait_line("^mpl finish and cleanup!$", "err")
    chunks = (re.match(r"^got chunk \(seq \d+\) from https?://[^/]+/" + segment + " ", l)
              for l in skerir.lines())
    return body, [m.group(1) for m in chunks if m]


def vod(workdir, skerir_bin, procs):
    procs.append(Proc(workdir, "nginx", "bash", os.path.join(REPO, "scripts/sample-origin.sh"),
                      "--port", "7780").wait_port(7780))
    body, names = play(workdir, skerir_bin, procs, "http://127.0.0.1:7780/vod/aes/master.m3u8",
                       r"vod/aes/(v\d/seg_\d+\.ts)")
    assert [int(n[-6:-3]) for n in names] == list(range(1, SEGMENTS + 1)), names
    check_media(body, names, workdir, "vod")


def muxer(workdir, skerir_bin, procs):
    www, port = os.path.join(workdir, "www"), free_port()
    for v, size in ((0, "320x180"), (1, "640x360")):
        os.makedirs(os.path.join(www, "hls/v%d" % v))
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=%s:rate=25" % size,
                        "-f", "lavfi", "-i", "sine", "-t", "8", "-c:v", "libx264", "-g", "50",
                        "-c:a", "aac", "-f", "hls", "-hls_time", "2", "-hls_playlist_type", "vod",
                        os.path.join(www, "hls/v%d/index.m3u8" % v)], check=True)
    open(os.path.join(www, "hls/master.m3u8"), "w").write(
        "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-STREAM-INF:BANDWIDTH=300000\nv0/index.m3u8\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=900000\nv1/index.m3u8\n")
    cert = os.path.join(REPO, "tests/support/tls/trusted")  # for 127.0.0.1 until 2120
    open(workdir + "/nginx.conf", "w").write("""%s daemon off; pid %s/nginx.pid; events {}
      http { access_log off; client_body_temp_path %s; proxy_temp_path %s; fastcgi_temp_path %s;
        uwsgi_temp_path %s; scgi_temp_path %s;
        server { listen 127.0.0.1:%d ssl; ssl_certificate %s.crt; ssl_certificate_key %s.key;
                 root %s; location = /start.m3u8 { return 302 /hls/master.m3u8; } } }"""
                                         % (("user root root;" if os.getuid() == 0 else ""),
                                            workdir, *[workdir] * 5, port, cert, cert, www))
    procs.append(Proc(workdir, "nginx-tls", "nginx", "-p", workdir, "-e", workdir + "/nginx.err",
                      "-c", workdir + "/nginx.conf").wait_port(port))
    os.environ["SSL_CERT_FILE"] = cert + ".crt"  # the only certificate skerir trusts
    body, names = play(workdir, skerir_bin, procs, "https://127.0.0.1:%d/start.m3u8" % port,
                       r"hls/(v\d/index\d\.ts)")
    # The muxer numbers its segments from 0, and a segment numbered 0 is never fetched.
    assert [n[-4] for n in names] == ["1", "2", "3"], names
    check_media(body, names, workdir, "muxer", os.path.join(www, "hls"), 6)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--skerir", required=True)
    ap.add_argument("--scenario", required=True, choices=["vod", "muxer"])
    args = ap.parse_args()
    workdir, procs = tempfile.mkdtemp(prefix="skerir-e2e."), []
    try:
        globals()[args.scenario](workdir, os.path.abspath(args.skerir), procs)
    except AssertionError as e:
        print("FAILED: %s (outputs kept in %s)" % (e, workdir), flush=True)
        return 1
    finally:
        for p in procs:
            p.stop()
    shutil.rmtree(workdir)
    return 0


if __name__ == "__main__":
    sys.exit(main())
