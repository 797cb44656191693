#!/usr/bin/env python3
"""The layout of deploy/scale-out.sh driven through HAProxy with the placeholder-host sample:
streams byte-exact and decoding, spread over the instances, each segment fetched from the origin
once per cache node, surviving a cache node stopped mid-stream and a killed instance; stopping
the layout leaves no process and no file behind."""

import argparse, collections, concurrent.futures, glob, os, re, shutil, signal, sys, tempfile, time
import urllib.request
from e2e_test import REPO, SEGMENTS, Proc, check_media, request

STREAMS, LATER_STREAMS = 6, 3
# Bytes per second per cache connection: a stream of the sample lasts about 20 s, long enough
# to stop the cache node under it, while no pause reaches skerir's time-outs.
RATE = 32768
URL = "/stream?url=http%3A%2F%2F~%2Fvod%2Fcache%2Fmaster.m3u8"
CLEAR = {os.path.relpath(p, os.path.join(REPO, "sample/vod/clear")): open(p, "rb").read()
         for p in glob.glob(os.path.join(REPO, "sample/vod/clear/v*/seg_*.ts"))}


def until(what, check):
    for _ in range(1200):
        if result := check():
            return result
        time.sleep(0.1)
    raise AssertionError("timed out waiting for " + what)


def segments(body):
    """Names of the clear segments the body starts with, one per number, whichever variant."""
    names, pos = [], 0
    for seq in range(1, SEGMENTS + 1):
        name = next((n for n, data in CLEAR.items()
                     if n.endswith("_%03d.ts" % seq) and body.startswith(data, pos)), None)
        if not name:
            break
        names.append(name)
        pos += len(CLEAR[name])
    return names


def streams(front, count, meanwhile=lambda: None):
    """`count` concurrent streams through HAProxy; `meanwhile` runs while they play."""
    host, port = front.split(":")
    with concurrent.futures.ThreadPoolExecutor(count) as pool:
        bodies = [pool.submit(request, URL, (host, int(port))) for _ in range(count)]
        meanwhile()
        return [b.result() for b in bodies]


def scale_out(state, workdir):
    layout = {f[0]: (f[1], int(f[2])) for f in map(str.split, open(os.path.join(state, "layout")))}
    front, caches = layout["haproxy"][0], sorted(n for n in layout if n.startswith("cache"))
    text = lambda name: open(os.path.join(state, name)).read()
    access = lambda name: [l.split() for l in text(name + ".access.log").splitlines()]
    seg_requests = lambda name: [f for f in access(name) if "/seg_" in f[1]]
    metrics = lambda name: urllib.request.urlopen("http://%s/metrics" % layout[name][0]).read()
    started = lambda name: int(re.search(rb"^skerir_streams_started_total (\d+)$", metrics(name),
                                         re.M).group(1))
    skerirs = sorted(n for n in layout if n.startswith("skerir"))

    failover = {}
    def stop_cache_in_use():
        # Once every stream has had a segment or so, stop the node serving them, gracefully as
        # an operator would: the transfers in flight complete, later requests are refused.
        node = until("segments from the cache tier",
                     lambda: next((c for c in caches if len(seg_requests(c)) >= STREAMS), None))
        os.kill(layout[node][1], signal.SIGQUIT)
        t0, line = time.monotonic(), "Invalidating cache server " + layout[node][0] + "\n"
        until("the invalidation line", lambda: any(line in text(s + ".out") for s in skerirs))
        failover["cache"], failover["node"] = time.monotonic() - t0, node

    bodies = streams(front, STREAMS, stop_cache_in_use)
    other = next(c for c in caches if c != failover["node"])
    assert seg_requests(other), "no segment came from %s after the stop" % other
    share = {s: started(s) for s in skerirs}
    assert all(share.values()), "an instance served no stream: %s" % share

    victim = skerirs[-1]
    os.kill(layout[victim][1], signal.SIGKILL)
    t0 = time.monotonic()
    until("HAProxy to mark %s down" % victim,
          lambda: "Server skerir/%s is DOWN" % victim in text("haproxy.err"))
    failover["instance"] = time.monotonic() - t0
    bodies += streams(front, LATER_STREAMS)
    later = {s: started(s) - share[s] for s in skerirs if s != victim}
    assert sum(later.values()) == LATER_STREAMS, later

    for i, body in enumerate(bodies):
        check_media(body, segments(body), workdir, "stream%d" % (i + 1))
    # One origin fetch per segment and cache node, every other request a hit.
    origin = collections.Counter((f[0], f[1]) for f in access("origin") if "/seg_" in f[1])
    statuses = collections.Counter(f[4] for c in caches for f in seg_requests(c))
    misses = collections.Counter((layout[c][0].split(":")[0], f[1]) for c in caches
                                 for f in seg_requests(c) if f[4] == "MISS")
    assert set(origin.values()) == {1} and misses == origin and set(statuses) == {"HIT", "MISS"}, \
        (statuses, misses, origin)

    print("streams: %d through HAProxy, %d segments, %d bytes, all byte-exact and decoding"
          % (len(bodies), sum(len(segments(b)) for b in bodies), sum(map(len, bodies))))
    print("per instance: first %d streams %s; after %s was killed, %d more %s"
          % (STREAMS, share, victim, LATER_STREAMS, later))
    print("origin: %d segment requests for %d distinct segments (once per cache node that served"
          " one); cache tier: %d HIT, %d MISS" % (sum(origin.values()), len({p for _, p in origin}),
                                                  statuses["HIT"], statuses["MISS"]))
    print("fail-over: %s stopped -> first invalidation %.1f s; %s killed -> HAProxy marks it "
          "down %.1f s" % (failover["node"], failover["cache"], victim, failover["instance"]))
    return layout


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--skerir", required=True)
    args = ap.parse_args()
    workdir, state = tempfile.mkdtemp(prefix="skerir-scaleout."), None
    script = Proc(workdir, "scale-out", "bash", os.path.join(REPO, "deploy/scale-out.sh"),
                  "--skerir", os.path.abspath(args.skerir), "--rate", str(RATE))
    try:
        script.wait_line("^scale-out: ready$")
        state = next(l.split()[-1] for l in script.lines() if l.startswith("scale-out: files in "))
        layout = scale_out(state, workdir)
        script.p.send_signal(signal.SIGTERM)
        script.p.wait(60)
        left = [n for n, (_, pid) in layout.items() if os.path.exists("/proc/%d" % pid)]
        assert not left and not os.path.exists(state), "left behind: %s %s" % (left, state)
    except AssertionError as e:
        if state and os.path.isdir(state):
            shutil.copytree(state, os.path.join(workdir, "layout"),
                            ignore=shutil.ignore_patterns("*.sock"))
        print("FAILED: %s (outputs kept in %s)" % (e, workdir), flush=True)
        return 1
    finally:
        script.stop(signal.SIGTERM)  # the script's own tear-down, also after a failure
    shutil.rmtree(workdir)
    return 0


if __name__ == "__main__":
    sys.exit(main())
