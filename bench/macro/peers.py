"""The peers skerir's costs are set against, beside curl pulling straight from nginx.

- The naive relay: curl fetches every bulk segment over one kept-alive connection and writes
  it into a pipe that a consumer (cat) drains. Like skerir it copies each byte twice (socket to
  user, user to the client's channel), with none of skerir's work; its CPU is curl's (the
  consumer stands for skerir's client, whose CPU skerir's figure leaves out too).
- Live remuxing: one `ffmpeg -i <master> -c copy -f mpegts` process per live stream, what
  people run instead of skerir. Its output goes to /dev/null, so its figure leaves out the send
  to a client that skerir's includes.

Every process is started through the harness's spawn() and stopped through its stop(), so the
harness's clean-up covers them on every way out.
"""

import os
import subprocess
import threading
import time

MB = 1e6
CLK_TCK = os.sysconf("SC_CLK_TCK")


def _cpu_seconds(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            rest = f.read().rsplit(")", 1)[1].split()
        return (int(rest[11]) + int(rest[12])) / CLK_TCK
    except OSError:
        return None


def _pss_kib(pid):
    try:
        with open("/proc/%d/smaps_rollup" % pid) as f:
            for line in f:
                if line.startswith("Pss:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def relay_pull(urls, size, timeout, spawn):
    """The naive relay moves the `size` bytes of `urls`: MB/s and the relay's CPU per MB."""
    args = ["curl", "-s", "--fail"]
    for u in urls:
        args += ["-o", "-", u]
    t0 = time.monotonic()
    relay = spawn(args, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    consumer = spawn(["wc", "-c"], stdin=relay.stdout, stdout=subprocess.PIPE, text=True)
    relay.stdout.close()  # the consumer holds the read end now
    timer = threading.Timer(timeout, lambda: relay.returncode is None and relay.kill())
    timer.start()
    try:
        _, status, ru = os.wait4(relay.pid, 0)  # reaped here, for its rusage
        relay.returncode = os.waitstatus_to_exitcode(status)
        cpu = ru.ru_utime + ru.ru_stime
    except ChildProcessError:  # reaped by the time-out's kill
        cpu = float("nan")
    timer.cancel()
    got = int(consumer.communicate(timeout=30)[0].split()[0])
    wall = time.monotonic() - t0
    return {"bytes": got, "wall": wall, "mbps": got / MB / wall,
            "cpu_ms_per_mb": cpu * 1000 / (got / MB) if got else float("inf"),
            "complete": got == size}


def ffmpeg_live(master, n, ramp_per_s, warmup, window, spawn, stop):
    """`n` remuxers of the live presentation, started `ramp_per_s` a second; after `warmup` s,
    their CPU and memory over `window` s: % of a core and PSS (MiB) per stream."""
    procs = []
    try:
        for _ in range(n):
            procs.append(spawn(["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin",
                                "-i", master, "-c", "copy", "-f", "mpegts", "-y", "/dev/null"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
            time.sleep(1.0 / ramp_per_s)
        time.sleep(warmup)
        t0 = time.monotonic()
        c0 = {p.pid: _cpu_seconds(p.pid) for p in procs}
        pss = []
        while time.monotonic() < t0 + window:
            pss.append(sum(_pss_kib(p.pid) or 0 for p in procs))
            time.sleep(min(2.0, max(0.0, t0 + window - time.monotonic())))
        c1 = {p.pid: _cpu_seconds(p.pid) for p in procs}
        t1 = time.monotonic()
        ran = [p.pid for p in procs if c0[p.pid] is not None and c1[p.pid] is not None
               and p.poll() is None]
        cpu = sum(c1[pid] - c0[pid] for pid in ran) / (t1 - t0)
        return {"n": n, "running": len(ran),
                "cpu_pct_per_stream": cpu * 100 / len(ran) if ran else float("nan"),
                "pss_mib_per_stream": sum(pss) / len(pss) / 1024 / n if pss else float("nan")}
    finally:
        for p in procs:
            if p.poll() is None:
                p.terminate()
        for p in procs:
            stop(p)
