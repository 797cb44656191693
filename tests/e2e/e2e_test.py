#!/usr/bin/env python3
"""skerir end to end with real media: the real binary, nginx serving sample/, ffprobe as judge.

  --scenario vod    the AES-128 sample through /stream: the output must be the clear twins of
                    the segments skerir reports, byte for byte, and decode without an error
  --scenario cache  the placeholder-host sample through two rate-limited nginx cache servers;
                    the one in use stops mid-stream and the stream finishes through the other
"""

import argparse, os, re, shutil, signal, socket, subprocess, sys, tempfile, time, zlib

REPO = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
SEGMENTS = 15  # per variant, 2 s each
CHUNK = re.compile(r"^got chunk \(seq (\d+)\) from http://[^/]+/vod/\w+/(v\d/seg_\d+\.ts) ")


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


def origin(workdir, port, rate=0):
    return Proc(workdir, "nginx-%d" % port, "bash", os.path.join(REPO, "scripts/sample-origin.sh"),
                "--port", str(port), "--rate", str(rate)).wait_port(port)


def request(path, on_first_chunk=None):
    """GET on skerir's port; returns the body once skerir closes."""
    with socket.create_connection(("127.0.0.1", 7744), timeout=240) as s:
        s.sendall(b"GET " + path.encode() + b" HTTP/1.1\r\n\r\n")
        data = b""
        while chunk := s.recv(65536):
            data += chunk
            if on_first_chunk and b"\r\n\r\n" in data:
                on_first_chunk = on_first_chunk()
    return data.partition(b"\r\n\r\n")[2]


def judge(body, skerir, workdir, name):
    """The body is the clear segments skerir reported, in order, and decodes cleanly."""
    skerir.wait_line("^mpl finish and cleanup!$", "err")
    names = [m.group(2) for m in map(CHUNK.match, skerir.lines()) if m]
    assert [int(n[-6:-3]) for n in names] == list(range(1, SEGMENTS + 1)), names
    expected = b"".join(open(os.path.join(REPO, "sample/vod/clear", n), "rb").read() for n in names)
    assert body == expected, "%s: %d bytes, %d expected" % (name, len(body), len(expected))
    path = os.path.join(workdir, name + ".ts")
    open(path, "wb").write(body)
    probe = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "stream=codec_name:format=duration",
                            "-of", "csv=p=0", path], capture_output=True, text=True)
    decode = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "null", "-"],
                            capture_output=True, text=True)
    fields = probe.stdout.split()
    assert not probe.stderr and not decode.stderr and sorted(fields[:2]) == ["aac", "h264"] \
        and abs(float(fields[-1]) - 2 * SEGMENTS) < 3, probe.stdout + probe.stderr + decode.stderr
    print("%s: %d bytes, variants %s, %s s of h264+aac, decodes cleanly"
          % (name, len(body), "".join(n[1] for n in names), fields[-1]), flush=True)


def vod(workdir, skerir_bin, procs):
    procs.append(origin(workdir, 7780))
    procs.append(Proc(workdir, "skerir", skerir_bin, "16777216").wait_port(7744))
    judge(request("/stream?url=http%3A%2F%2F127.0.0.1%3A7780%2Fvod%2Faes%2Fmaster.m3u8"),
          procs[-1], workdir, "vod")


def cache(workdir, skerir_bin, procs):
    # 32 KiB/s: a segment of the lowest variant takes about a second, so the stream is still
    # running when the server in use stops, while every pause stays under the 2 s time-out.
    servers = {}
    while len(servers) < 2:
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
        servers["127.0.0.1:%d" % port] = origin(workdir, port, 32768)
    procs.extend(servers.values())
    ring = sorted(servers)
    in_use = ring[((zlib.crc32(b"vod/clear") >> 16) & 0x7FFF) % 2]  # the key of every segment
    skerir = Proc(workdir, "skerir", skerir_bin, "16777216").wait_port(7744)
    procs.append(skerir)
    assert request("/update-cache-map?chunk=%s&playlist=%s" % (",".join(ring), ",".join(ring))) == b'"OK"\n'

    def stop_in_use():
        skerir.wait_line(r"^got chunk \(seq 1\) ")
        servers[in_use].stop(signal.SIGQUIT)  # graceful: the transfer in flight completes

    body = request("/stream?url=http%3A%2F%2F~%2Fvod%2Fcache%2Fmaster.m3u8", stop_in_use)
    skerir.wait_line("^Invalidating cache server %s$" % re.escape(in_use))
    judge(body, skerir, workdir, "cache")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--skerir", required=True)
    ap.add_argument("--scenario", required=True, choices=["vod", "cache"])
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
