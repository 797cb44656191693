#!/usr/bin/env python3
"""skerir's macro benchmark: whole streams over loopback from nginx, beside the tools people
use instead (curl straight from nginx as the limit, ffmpeg remuxing as the alternative).

  macro.py run --skerir BIN --cache DIR [--quick] [--profile] [--skip-ffmpeg] [--budget S]
  macro.py loadgen ...     (the live load client; started by run)
  macro.py live-origin ... (the live playlist writer; started by run)

Figures use MB = 10^6 bytes. CPU comes from /proc/<pid>/stat (utime + stime, all threads, the
ones that ended included), memory from /proc/<pid>/status (VmHWM) and smaps_rollup (Pss).
Every process started here is stopped again on every way out, by its own id.
"""

import argparse
import json
import os
import queue
import resource
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import content  # noqa: E402
import loadgen  # noqa: E402
import origin as origin_mod  # noqa: E402
import peers  # noqa: E402

SKERIR_PORT = 7744
CLK_TCK = os.sysconf("SC_CLK_TCK")
MB = 1e6
BULK_BUFFER = 2 * 1024 * 1024 * 1024  # larger than the bulk presentation
LIVE_BUFFER = 16 * 1024 * 1024

TARGETS = {
    "bulk_clear_ratio": 0.50,   # of curl <- nginx's MB/s
    "bulk_cpu_vs_curl": 2.0,    # skerir's CPU per MB over curl <- nginx's (two copies to one)
    "bulk_aes_ratio": 0.45,
    "bulk_https_ratio": 0.40,   # of curl <- nginx's MB/s over TLS
    "ttfb_ms": 10.0,
    "live_share": 1.0,          # every client >= 95 % of the live rate
    "live_cpu_vs_ffmpeg": 0.25,  # CPU per stream over that of one ffmpeg -c copy per stream
    "live_pss_mib": 0.5,        # per stream
}
LIVE_TARGET_CLIENTS = (200, 1000)
FFMPEG_LIVE_MAX = 200  # remuxers run for the live peer (each holds about 12 MiB)

started = []  # every Popen made here, stopped in cleanup()
temp_dirs = []  # removed in cleanup()


def log(msg):
    print("macro: " + msg, flush=True)


# ---- /proc readings --------------------------------------------------------------------------

def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        rest = f.read().rsplit(")", 1)[1].split()
    return (int(rest[11]) + int(rest[12])) / CLK_TCK


def status_kib(pid, field):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def pss_kib(pid):
    with open("/proc/%d/smaps_rollup" % pid) as f:
        for line in f:
            if line.startswith("Pss:"):
                return int(line.split()[1])
    return 0


def reset_peak_rss(pid):
    with open("/proc/%d/clear_refs" % pid, "w") as f:
        f.write("5")


def load_average():
    with open("/proc/loadavg") as f:
        return f.read().split()[0]


# ---- processes -------------------------------------------------------------------------------

def spawn(args, **kw):
    kw.setdefault("start_new_session", True)
    p = subprocess.Popen(args, **kw)
    started.append(p)
    return p


def stop(p, sig=signal.SIGTERM, wait=5):
    if p.poll() is None:
        try:
            p.send_signal(sig)
            p.wait(wait)
        except subprocess.TimeoutExpired:
            p.kill()
            p.wait()
        except ProcessLookupError:
            pass


def cleanup():
    for p in reversed(started):
        try:
            stop(p, wait=3)
        except Exception:  # keep stopping the others
            pass
    for d in temp_dirs:
        subprocess.run(["rm", "-rf", d])


class Skerir:
    def __init__(self, binary, tmp, buffer_bytes, name, env=None):
        self.binary, self.tmp, self.buffer_bytes, self.name = binary, tmp, buffer_bytes, name
        self.env = env
        self.proc = None

    def start(self):
        """Starts skerir on port 7744, waiting (up to three minutes) while another process has it.

        Other programs on this machine (test suites) may run a skerir on the same port, so an
        answer on the port proves nothing: the listening socket must belong to this process.
        """
        deadline = time.monotonic() + 180
        while True:
            self.out = open(os.path.join(self.tmp, self.name + ".out"), "wb")
            self.err = open(os.path.join(self.tmp, self.name + ".err"), "wb")
            self.proc = spawn([self.binary, str(self.buffer_bytes)], stdout=self.out,
                              stderr=self.err, env=self.env)
            while time.monotonic() < deadline and self.proc.poll() is None:
                if listens_on(self.proc.pid, SKERIR_PORT):
                    return self
                time.sleep(0.05)
            if self.proc.poll() is None or time.monotonic() >= deadline:
                self.stop()
                raise RuntimeError("skerir did not come up on port %d" % SKERIR_PORT)
            log("port %d is taken by another process; waiting for it" % SKERIR_PORT)
            time.sleep(2)

    @property
    def pid(self):
        return self.proc.pid

    def stop(self):
        if self.proc:
            stop(self.proc)
            self.out.close()
            self.err.close()


def listens_on(pid, port):
    """True when process `pid` holds the socket listening on 127.0.0.1/0.0.0.0:`port`."""
    inodes = set()
    with open("/proc/net/tcp") as f:
        for line in f.readlines()[1:]:
            fields = line.split()
            if fields[3] == "0A" and int(fields[1].split(":")[1], 16) == port:
                inodes.add("socket:[%s]" % fields[9])
    if not inodes:
        return False
    fd_dir = "/proc/%d/fd" % pid
    for fd in os.listdir(fd_dir):
        try:
            if os.readlink(os.path.join(fd_dir, fd)) in inodes:
                return True
        except OSError:
            pass
    return False


def stream_url(master):
    return "http://127.0.0.1:%d/stream?url=%s" % (SKERIR_PORT,
                                                  urllib.parse.quote(master, safe=""))


def run_measured(args, timeout, env=None):
    """Runs a command to completion: (wall seconds, CPU seconds, stdout text)."""
    t0 = time.monotonic()
    p = spawn(args, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    timer = threading.Timer(timeout, lambda: p.poll() is None and p.kill())
    timer.start()
    out = p.stdout.read()
    _, status, ru = os.wait4(p.pid, 0)
    p.returncode = os.waitstatus_to_exitcode(status)
    timer.cancel()
    wall = time.monotonic() - t0
    return wall, ru.ru_utime + ru.ru_stime, out.decode(errors="replace"), p.returncode


# ---- scenarios -------------------------------------------------------------------------------

def curl_direct(urls, timeout, env=None):
    """One curl, one kept-alive connection, every segment to /dev/null."""
    args = ["curl", "-s", "-w", "%{size_download}\\n"]
    for u in urls:
        args += ["-o", "/dev/null", u]
    wall, cpu, out, _ = run_measured(args, timeout, env)
    got = sum(int(x) for x in out.split())
    return {"bytes": got, "wall": wall, "mbps": got / MB / wall, "client_cpu": cpu}


def skerir_pull(sk, master, timeout):
    reset_peak_rss(sk.pid)
    c0 = cpu_seconds(sk.pid)
    wall, cpu, out, _ = run_measured(
        ["curl", "-s", "-o", "/dev/null", "-w", "%{size_download} %{time_starttransfer}",
         stream_url(master)], timeout)
    time.sleep(0.05)  # let the stream's clean-up land in the CPU count
    c1 = cpu_seconds(sk.pid)
    got = int(out.split()[0])
    return {"bytes": got, "wall": wall, "mbps": got / MB / wall,
            "cpu_ms_per_mb": (c1 - c0) * 1000 / (got / MB) if got else float("inf"),
            "hwm_mib": status_kib(sk.pid, "VmHWM") / 1024, "client_cpu": cpu}


def ffmpeg_pull(master, size, timeout):
    wall, cpu, _, rc = run_measured(
        ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-i", master, "-c", "copy",
         "-f", "mpegts", "-y", "/dev/null"], timeout)
    return {"bytes": size, "wall": wall, "mbps": size / MB / wall, "cpu_ms_per_mb":
            cpu * 1000 / (size / MB), "rc": rc}


def first_byte_ms(master, timeout=10.0):
    """Request to the first body byte of a stream, then hang up."""
    target = "/stream?url=" + urllib.parse.quote(master, safe="")
    t0 = time.monotonic()
    with socket.create_connection(("127.0.0.1", SKERIR_PORT), timeout=timeout) as s:
        s.sendall(("GET %s HTTP/1.0\r\n\r\n" % target).encode())
        data = b""
        while True:
            chunk = s.recv(65536)
            if not chunk:
                return None
            data += chunk
            end = data.find(b"\r\n\r\n")
            if end >= 0 and len(data) > end + 4:
                return (time.monotonic() - t0) * 1000


def ffmpeg_first_byte_ms(master, timeout=10.0):
    t0 = time.monotonic()
    p = spawn(["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-i", master,
               "-c", "copy", "-f", "mpegts", "-"], stdout=subprocess.PIPE,
              stderr=subprocess.DEVNULL)
    first = p.stdout.read(1)
    ms = (time.monotonic() - t0) * 1000 if first else None
    stop(p, signal.SIGKILL)
    return ms


def median(xs):
    xs = [x for x in xs if x is not None]
    return statistics.median(xs) if xs else float("nan")


class Profiler:
    """perf sampling of one process (cpu-clock: this VM offers no hardware counters)."""

    def __init__(self, enabled, out_dir):
        self.enabled = enabled and subprocess.run(
            ["perf", "record", "-e", "cpu-clock", "-o", "/dev/null", "--", "true"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0
        self.out_dir = out_dir
        self.proc = None

    def start(self, pid, name):
        if not self.enabled:
            return
        self.name = name
        self.pid = pid
        self.data = os.path.join(self.out_dir, name + ".perf.data")
        # System-wide rather than -p: following each of thousands of threads makes every
        # context switch of the profiled process far dearer and skews what it shows. Kernel
        # call chains come from the kernel's own unwinder; user chains stop early (no frame
        # pointers), which the symbol of the syscall's caller makes up for.
        self.proc = spawn(["perf", "record", "-q", "-a", "-e", "cpu-clock", "-F", "999", "-g",
                           "-o", self.data], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL)
        time.sleep(0.5)

    def finish(self):
        if not self.proc:
            return
        stop(self.proc, signal.SIGINT, wait=30)
        self.proc = None
        report = os.path.join(self.out_dir, self.name + ".txt")
        with open(report, "w") as f:
            for title, opts in (("flat, by symbol", ["--no-children", "-g", "none",
                                                     "--percent-limit", "0.3", "--sort", "dso,sym"]),
                                ("inclusive, by symbol", ["--children", "-g", "none",
                                                          "--percent-limit", "1", "--sort", "sym"]),
                                ("self, with callers", ["--no-children", "-G",
                                                        "--percent-limit", "2", "--sort", "sym"])):
                f.write("==== %s\n" % title)
                f.flush()
                subprocess.run(["perf", "report", "-i", self.data, "--stdio",
                                "--pid", str(self.pid)] + opts,
                               stdout=f, stderr=subprocess.DEVNULL)
        log("profile of %s: %s" % (self.name, report))


def live_run(sk_binary, tmp, port, target, n, live_rate, args, profiler, timeout):
    sk = Skerir(sk_binary, tmp, LIVE_BUFFER, "skerir-live-%d" % n).start()
    try:
        time.sleep(1.0)
        base_pss = pss_kib(sk.pid)
        lg = spawn([sys.executable, os.path.abspath(__file__), "loadgen", "--port", str(port),
                    "--target", target, "--clients", str(n), "--ramp", str(args.ramp),
                    "--warmup", str(args.warmup), "--window", str(args.window)],
                   stdout=subprocess.PIPE, text=True)
        lines = queue.Queue()
        threading.Thread(target=lambda: [lines.put(x) for x in lg.stdout] and None,
                         daemon=True).start()
        deadline = time.monotonic() + timeout
        result, c0, c1, pss, threads, ng0, ng1 = None, None, None, [], [], None, None
        nginx_pids = args.nginx.pids()
        in_window = False
        while result is None:
            if time.monotonic() > deadline or lg.poll() is not None and lines.empty():
                raise RuntimeError("load client for N=%d did not finish" % n)
            try:
                line = lines.get(timeout=2.0)
            except queue.Empty:
                line = ""
            if in_window:
                pss.append(pss_kib(sk.pid))
                threads.append(status_kib(sk.pid, "Threads"))
            if line.startswith("CONNECTED"):
                log("N=%d: %s clients streaming; warming up" % (n, line.split()[1]))
            elif line.startswith("WINDOW_START"):
                c0 = cpu_seconds(sk.pid)
                ng0 = sum(cpu_seconds(p) for p in nginx_pids)
                in_window = True
                if profiler and n == max(args.clients):
                    profiler.start(sk.pid, "live-%d" % n)
            elif line.startswith("WINDOW_END"):
                c1 = cpu_seconds(sk.pid)
                ng1 = sum(cpu_seconds(p) for p in nginx_pids)
                in_window = False
                if profiler:
                    profiler.finish()
            elif line.startswith("RESULT "):
                result = json.loads(line[len("RESULT "):])
        lg.wait(10)
        window = result["window"]
        clients = result["clients"]
        ok = [c for c in clients if not c["ended"] and c["rate"] >= 0.95 * live_rate]
        ratios = sorted(c["rate"] / live_rate for c in clients)
        gaps = [c["max_gap"] for c in clients if c["max_gap"] is not None]
        return {
            "n": n,
            "share": len(ok) / n,
            "rate_ratio_min": ratios[0],
            "rate_ratio_p5": ratios[len(ratios) // 20],
            "rate_ratio_median": statistics.median(ratios),
            "window_ratio_min": min(c["window_rate"] for c in clients) / live_rate,
            "max_gap_s": max(gaps) if gaps else None,
            "ended": sum(1 for c in clients if c["ended"]),
            "errors": sorted({c["error"] for c in clients if c["error"]}),
            "cpu_pct_per_stream": (c1 - c0) / window * 100 / n,
            "cpu_pct_total": (c1 - c0) / window * 100,
            "pss_mib_per_stream": (statistics.mean(pss) - base_pss) / 1024 / n if pss else None,
            "pss_mib_per_stream_max": (max(pss) - base_pss) / 1024 / n if pss else None,
            "base_pss_mib": base_pss / 1024,
            "threads_max": max(threads) if threads else None,
            "client_cpu_pct": result["cpu_seconds"] / window * 100,
            "nginx_cpu_pct": (ng1 - ng0) / window * 100,
        }
    finally:
        sk.stop()


# ---- the run ---------------------------------------------------------------------------------

def fmt(x, form=".1f"):
    return "n/a" if x is None or x != x else format(x, form)


def verdict(ok):
    return "PASS" if ok else "MISS"


def cmd_run(args):
    t_begin = time.monotonic()
    budget_end = t_begin + args.budget
    cache = os.path.abspath(args.cache)
    manifest = content.prepare(cache)
    tmp = tempfile.mkdtemp(prefix="skerir-macro-")
    temp_dirs.append(tmp)
    prof_dir = os.path.abspath(args.profile_dir)
    if args.profile:
        os.makedirs(prof_dir, exist_ok=True)
    profiler = Profiler(args.profile, prof_dir) if args.profile else None
    if args.profile and not profiler.enabled:
        log("perf cannot sample here; profiling is off")
        profiler = None
    results = {"load_average_at_start": load_average(), "reps": args.reps}
    log("load average at start: %s (other work on this machine skews every figure)"
        % results["load_average_at_start"])

    nginx = origin_mod.Nginx(tmp, os.path.join(cache, "media"))
    nginx.start()
    started.append(nginx.proc)  # stopped with everything else on any way out
    args.nginx = nginx
    urls = content.write_playlists(manifest, os.path.join(tmp, "pl"), nginx.origin)
    tls_urls = content.write_playlists(manifest, os.path.join(tmp, "pl"), nginx.tls_origin,
                                       "tls_")
    trust = nginx.trust_env()
    live_media = os.path.join(tmp, "pl", "live_media.m3u8")
    live = spawn([sys.executable, os.path.abspath(__file__), "live-origin", "--origin",
                  nginx.origin, "--manifest", os.path.join(cache, "media", "manifest.json"),
                  "--out", live_media])
    bulk_mb = urls["bulk_bytes"] / MB
    pull_timeout = 120

    # 1. Bulk pull: curl from nginx (the limit), skerir, ffmpeg; interleaved, several times; the
    #    clear presentation also over https, against curl over TLS.
    sk = Skerir(args.skerir, tmp, BULK_BUFFER, "skerir-bulk", env=trust).start()
    bulk = {k: [] for k in ("curl_clear", "skerir_clear", "curl_aes", "skerir_aes",
                            "curl_tls", "skerir_tls", "ffmpeg_clear", "ffmpeg_aes")}
    try:
        # Warm the page cache and every path once, unmeasured.
        curl_direct(urls["bulk_segments"], pull_timeout)
        curl_direct(urls["bulk_aes_segments"], pull_timeout)
        curl_direct(tls_urls["bulk_segments"], pull_timeout, trust)
        for rep in range(args.reps):
            bulk["curl_clear"].append(curl_direct(urls["bulk_segments"], pull_timeout))
            bulk.setdefault("relay_clear", []).append(
                peers.relay_pull(urls["bulk_segments"], urls["bulk_bytes"], pull_timeout, spawn))
            bulk["skerir_clear"].append(skerir_pull(sk, urls["bulk"], pull_timeout))
            bulk["curl_aes"].append(curl_direct(urls["bulk_aes_segments"], pull_timeout))
            if rep == 0 and profiler:
                profiler.start(sk.pid, "bulk-clear")
                skerir_pull(sk, urls["bulk"], pull_timeout)
                profiler.finish()
                profiler.start(sk.pid, "bulk-aes")
                skerir_pull(sk, urls["bulk_aes"], pull_timeout)
                profiler.finish()
            bulk["skerir_aes"].append(skerir_pull(sk, urls["bulk_aes"], pull_timeout))
            bulk["curl_tls"].append(curl_direct(tls_urls["bulk_segments"], pull_timeout, trust))
            bulk["skerir_tls"].append(skerir_pull(sk, tls_urls["bulk"], pull_timeout))
            log("bulk rep %d: curl %.0f MB/s, skerir %.0f MB/s, curl(aes) %.0f MB/s, "
                "skerir(aes) %.0f MB/s, curl(tls) %.0f MB/s, skerir(https) %.0f MB/s" % (
                    rep + 1, bulk["curl_clear"][-1]["mbps"], bulk["skerir_clear"][-1]["mbps"],
                    bulk["curl_aes"][-1]["mbps"], bulk["skerir_aes"][-1]["mbps"],
                    bulk["curl_tls"][-1]["mbps"], bulk["skerir_tls"][-1]["mbps"]))
        if not args.skip_ffmpeg:
            for rep in range(max(1, args.reps // 2)):
                if time.monotonic() > budget_end - 240:
                    log("time budget: skipping the remaining ffmpeg pulls")
                    break
                bulk["ffmpeg_clear"].append(
                    ffmpeg_pull(urls["bulk"], urls["bulk_bytes"], pull_timeout))
                bulk["ffmpeg_aes"].append(
                    ffmpeg_pull(urls["bulk_aes"], urls["bulk_bytes"], pull_timeout))
                log("ffmpeg rep %d: %.0f MB/s, aes %.0f MB/s" % (
                    rep + 1, bulk["ffmpeg_clear"][-1]["mbps"], bulk["ffmpeg_aes"][-1]["mbps"]))

        # 2. Time to the first body byte, and the multi-variant VOD (reported only).
        ttfb = []
        for _ in range(args.ttfb_reps):
            ttfb.append(first_byte_ms(urls["vod"]))
            time.sleep(0.1)
        results["ttfb_ms"] = ttfb
        results["ffmpeg_ttfb_ms"] = [ffmpeg_first_byte_ms(urls["vod"])
                                     for _ in range(0 if args.skip_ffmpeg else 5)]
    finally:
        sk.stop()
    bad = [r["bytes"] for k in ("skerir_clear", "skerir_aes", "skerir_tls") for r in bulk[k]
           if r["bytes"] != urls["bulk_bytes"]]
    if bad:
        log("WARNING: skerir delivered %s bytes where the bulk presentation has %d" %
            (bad, urls["bulk_bytes"]))
    results["bulk"] = bulk
    results["bulk_mb"] = bulk_mb

    vod = []
    for rep in range(args.vod_reps):
        # A fresh process each time: the average speed that decides the first variant carries
        # over between streams of one process.
        sk = Skerir(args.skerir, tmp, BULK_BUFFER, "skerir-vod").start()
        try:
            vod.append(skerir_pull(sk, urls["vod"], pull_timeout))
        finally:
            sk.stop()
    results["vod"] = vod

    # 3. Live: N clients of the paced presentation.
    live_rate = content.live_rate_bytes_per_s(manifest)
    results["live_rate_mbit"] = live_rate * 8 / 1e6
    results["live_window_s"] = args.window
    target = "/stream?url=" + urllib.parse.quote(urls["live"], safe="")
    results["live"] = []
    if not args.skip_ffmpeg:
        n = min(FFMPEG_LIVE_MAX, max(args.clients))
        log("live peer: %d ffmpeg -c copy remuxers for %.0f s" % (n, args.window))
        results["ffmpeg_live"] = peers.ffmpeg_live(urls["live"], n, args.ramp / 2, args.warmup,
                                                   args.window, spawn, stop)
        log("ffmpeg x%d: %.4f %% CPU and %.1f MiB per stream" % (
            n, results["ffmpeg_live"]["cpu_pct_per_stream"],
            results["ffmpeg_live"]["pss_mib_per_stream"]))
    for n in args.clients:
        expected = n / args.ramp + args.warmup + args.window + 30
        if time.monotonic() + expected > budget_end:
            log("time budget: skipping the live run with N=%d" % n)
            continue
        log("live: %d clients at %.2f Mbit/s for %.0f s" % (n, live_rate * 8 / 1e6, args.window))
        r = live_run(args.skerir, tmp, SKERIR_PORT, target, n, live_rate, args, profiler,
                     expected + 60)
        results["live"].append(r)
        log("N=%d: %.0f %% of clients at >= 95 %% of the rate, %.4f %% CPU and %.3f MiB per "
            "stream" % (n, r["share"] * 100, r["cpu_pct_per_stream"], r["pss_mib_per_stream"]))
    stop(live)
    nginx.stop()
    results["seconds"] = time.monotonic() - t_begin
    report(results)
    with open(os.path.join(os.path.dirname(cache), "macro-results.json"), "w") as f:
        json.dump(results, f, indent=1)


def report(r):
    b = r["bulk"]

    def med(key, field):
        return median([x[field] for x in b.get(key, [])])

    def cpu_per_mb(key):
        """skerir and the relay count their own CPU; curl and ffmpeg that of the client."""
        return median([x["cpu_ms_per_mb"] if "cpu_ms_per_mb" in x else
                       x["client_cpu"] * 1000 / (x["bytes"] / MB) for x in b.get(key, [])])

    lim_c, lim_a = med("curl_clear", "mbps"), med("curl_aes", "mbps")
    lim_t = med("curl_tls", "mbps")
    sc, sa, st = (med("skerir_clear", "mbps"), med("skerir_aes", "mbps"),
                  med("skerir_tls", "mbps"))
    cpu_c, cpu_a = med("skerir_clear", "cpu_ms_per_mb"), med("skerir_aes", "cpu_ms_per_mb")
    ttfb = median(r["ttfb_ms"])
    print()
    print("skerir macro benchmark  (MB = 10^6 bytes; medians of %d runs; load average at start "
          "%s; %.0f s)" % (r["reps"], r["load_average_at_start"], r["seconds"]))
    print()
    print("Bulk pull, one client, %.0f MB in one variant" % r["bulk_mb"])
    print("  %-28s %10s %12s %10s %9s" % ("", "MB/s", "CPU ms/MB", "peak MiB", "vs limit"))
    rows = [("curl <- nginx (limit)", "curl_clear", lim_c), ("skerir", "skerir_clear", lim_c),
            ("curl -> pipe (naive relay)", "relay_clear", lim_c),
            ("ffmpeg -c copy", "ffmpeg_clear", lim_c),
            ("curl <- nginx, AES (limit)", "curl_aes", lim_a), ("skerir, AES", "skerir_aes", lim_a),
            ("ffmpeg -c copy, AES", "ffmpeg_aes", lim_a),
            ("curl <- nginx, TLS (limit)", "curl_tls", lim_t),
            ("skerir, https", "skerir_tls", lim_t)]
    for label, key, lim in rows:
        if not b.get(key):
            continue
        mbps = med(key, "mbps")
        cpu = cpu_per_mb(key)
        hwm = med(key, "hwm_mib") if "hwm_mib" in b[key][0] else None
        print("  %-28s %10s %12s %10s %8s%%" % (label, fmt(mbps, ".0f"), fmt(cpu, ".3f"),
                                                fmt(hwm, ".1f"), fmt(mbps / lim * 100, ".0f")))
    if b["ffmpeg_clear"]:
        print("  skerir / ffmpeg: %.1fx clear, %.1fx AES" % (
            sc / med("ffmpeg_clear", "mbps"), sa / med("ffmpeg_aes", "mbps")))
    print()
    print("Start and adaptive VOD")
    got = [x for x in r["ttfb_ms"] if x is not None]
    if got:
        print("  time to first body byte: median %s ms of %d (min %s, max %s)%s" % (
            fmt(ttfb), len(got), fmt(min(got)), fmt(max(got)),
            "; ffmpeg to its first output byte: median %s ms" % fmt(median(r["ffmpeg_ttfb_ms"]))
            if r["ffmpeg_ttfb_ms"] else ""))
    if r["vod"]:
        print("  three-variant VOD from the lowest variant: median %s MB/s over %s s "
              "(bounded by the one-second refresh tick after a switch up)" % (
                  fmt(median([x["mbps"] for x in r["vod"]])),
                  fmt(median([x["wall"] for x in r["vod"]]), ".2f")))
    print()
    print("Live, %.2f Mbit/s per client, %.0f s window" % (r["live_rate_mbit"],
                                                           r["live_window_s"]))
    print("  %6s %9s %9s %11s %11s %9s %9s %9s %9s" % (
        "N", ">=95%", "min rate", "CPU%/strm", "PSS MiB/st", "threads", "client%",
        "nginx%", "ended"))
    for x in r["live"]:
        print("  %6d %8.1f%% %8.1f%% %11.4f %11.3f %9s %9.1f %9.1f %9d" % (
            x["n"], x["share"] * 100, x["rate_ratio_min"] * 100, x["cpu_pct_per_stream"],
            x["pss_mib_per_stream"], x["threads_max"], x["client_cpu_pct"], x["nginx_cpu_pct"],
            x["ended"]))
        if x["errors"]:
            print("         client errors: %s" % ", ".join(x["errors"]))
    ff = r.get("ffmpeg_live")
    if ff:
        print("  %6d %9s %9s %11.4f %11.3f  ffmpeg -c copy -f mpegts, one process per stream "
              "(%d ran)" % (ff["n"], "", "", ff["cpu_pct_per_stream"], ff["pss_mib_per_stream"],
                            ff["running"]))
    print()
    print("Targets (ratios within this run)")
    t = TARGETS
    if not b["skerir_clear"] or not got:
        print("  (bulk or start-up not measured)")
        lim_c = lim_a = lim_t = sc = sa = st = cpu_c = cpu_a = ttfb = float("nan")
    curl_cpu = cpu_per_mb("curl_clear")
    print("  %s bulk clear: %.0f %% of curl <- nginx's MB/s (>= %.0f %%)" % (
        verdict(sc / lim_c >= t["bulk_clear_ratio"]), sc / lim_c * 100,
        t["bulk_clear_ratio"] * 100))
    print("  %s bulk clear: %.3f ms CPU per MB, %.2f x curl <- nginx's %.3f (<= %.1f x)" % (
        verdict(cpu_c / curl_cpu <= t["bulk_cpu_vs_curl"]), cpu_c, cpu_c / curl_cpu, curl_cpu,
        t["bulk_cpu_vs_curl"]))
    if b.get("relay_clear"):
        relay_mbps, relay_cpu = med("relay_clear", "mbps"), cpu_per_mb("relay_clear")
        print("  %s bulk clear: ahead of the naive relay: %.2f x its MB/s (%.0f), %.2f x its CPU "
              "per MB (%.3f)" % (verdict(sc > relay_mbps and cpu_c < relay_cpu),
                                 sc / relay_mbps, relay_mbps, cpu_c / relay_cpu, relay_cpu))
    else:
        print("  MISS bulk clear: naive relay not measured")
    print("  %s bulk AES-128: %.0f %% of curl <- nginx's MB/s (>= %.0f %%); %.3f ms CPU per MB" % (
        verdict(sa / lim_a >= t["bulk_aes_ratio"]), sa / lim_a * 100, t["bulk_aes_ratio"] * 100,
        cpu_a))
    print("  %s bulk https: %.0f %% of curl over TLS (>= %.0f %%); %.3f ms CPU per MB" % (
        verdict(st / lim_t >= t["bulk_https_ratio"]), st / lim_t * 100,
        t["bulk_https_ratio"] * 100, med("skerir_tls", "cpu_ms_per_mb") if b["skerir_tls"]
        else float("nan")))
    print("  %s time to first body byte: median %.1f ms (<= %.0f)" % (
        verdict(ttfb <= t["ttfb_ms"]), ttfb, t["ttfb_ms"]))
    ff_cpu = ff["cpu_pct_per_stream"] if ff else float("nan")
    for n in LIVE_TARGET_CLIENTS:
        runs = [x for x in r["live"] if x["n"] == n]
        if not runs:
            print("  MISS %d live streams: not measured" % n)
            continue
        x = runs[0]
        print("  %s %d live streams: %.1f %% of clients at >= 95 %% of the live rate (all)" % (
            verdict(x["share"] >= t["live_share"]), n, x["share"] * 100))
        print("  %s %d live streams: %.4f %% of a core per stream, %.2f x ffmpeg's %.4f "
              "(<= %.2f x)" % (verdict(x["cpu_pct_per_stream"] / ff_cpu <= t["live_cpu_vs_ffmpeg"]),
                               n, x["cpu_pct_per_stream"], x["cpu_pct_per_stream"] / ff_cpu,
                               ff_cpu, t["live_cpu_vs_ffmpeg"]))
        print("  %s %d live streams: %.3f MiB PSS per stream (<= %.1f)" % (
            verdict(x["pss_mib_per_stream"] <= t["live_pss_mib"]), n, x["pss_mib_per_stream"],
            t["live_pss_mib"]))
    print("  (memory back after a load peak: the load test, ctest -L load, prints it)")


def cmd_live_origin(args):
    with open(args.manifest) as f:
        manifest = json.load(f)
    origin_mod.run_live(args.origin, manifest["live"], args.out, content.LIVE_TARGET_DURATION)


def main():
    p = argparse.ArgumentParser(prog="macro.py")
    sub = p.add_subparsers(dest="cmd", required=True)
    r = sub.add_parser("run")
    r.add_argument("--skerir", required=True)
    r.add_argument("--cache", required=True)
    r.add_argument("--reps", type=int, default=5)
    r.add_argument("--ttfb-reps", type=int, default=21)
    r.add_argument("--vod-reps", type=int, default=3)
    r.add_argument("--clients", type=lambda s: [int(x) for x in s.split(",") if x],
                   default=[50, 200, 1000])
    r.add_argument("--ramp", type=float, default=100.0)
    r.add_argument("--warmup", type=float, default=8.0)
    r.add_argument("--window", type=float, default=30.0)
    r.add_argument("--budget", type=float, default=840.0, help="seconds for the whole run")
    r.add_argument("--skip-ffmpeg", action="store_true")
    r.add_argument("--profile", action="store_true", help="perf-sample skerir (bulk, largest N)")
    r.add_argument("--profile-dir", default="build-bench/macro-profile")
    lo = sub.add_parser("live-origin")
    lo.add_argument("--origin", required=True)
    lo.add_argument("--manifest", required=True)
    lo.add_argument("--out", required=True)
    sub.add_parser("loadgen", add_help=False)
    if len(sys.argv) > 1 and sys.argv[1] == "loadgen":
        loadgen.main(sys.argv[2:])
        return
    args = p.parse_args()
    if args.cmd == "live-origin":
        cmd_live_origin(args)
        return
    # A signal (the run script's time limit, Ctrl-C) still runs the clean-up below.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        cmd_run(args)
    finally:
        cleanup()


if __name__ == "__main__":
    main()
