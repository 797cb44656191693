"""Live load generator: N stream clients in one single-threaded epoll loop.

Each client sends one GET for the stream, skips the reply header and counts body bytes. Live
bodies arrive in bursts (one segment per playlist refresh), so besides the bytes inside the
measurement window it records where each burst ended: the rate between the first and the last
burst end inside the window is the sustained rate, free of the up-to-one-segment error that
counting bytes between two arbitrary instants has.

Protocol with the harness (stdout, one line each): "CONNECTED <n> <t>" once the ramp is done,
"WINDOW_START <t>", "WINDOW_END <t>", and finally "RESULT <json>". Times are time.monotonic().
"""

import errno
import json
import resource
import selectors
import socket
import time

RECV_SIZE = 1 << 20


class Client:
    __slots__ = ("sock", "header", "body", "first_byte", "last_t", "bursts", "closed",
                 "at_w0", "at_w1", "error")

    def __init__(self, sock):
        self.sock = sock
        self.header = b""  # until the blank line is seen; None afterwards
        self.body = 0
        self.first_byte = None
        self.last_t = None
        self.bursts = []  # (end time, body bytes at that end)
        self.closed = False
        self.at_w0 = None
        self.at_w1 = None
        self.error = None


def _cpu_seconds():
    r = resource.getrusage(resource.RUSAGE_SELF)
    return r.ru_utime + r.ru_stime


def run(port, target, n, ramp_per_s, warmup, window, gap, tail):
    sel = selectors.EpollSelector()
    buf = bytearray(RECV_SIZE)
    view = memoryview(buf)
    request = ("GET %s HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n" % target).encode()
    clients = []
    pending = {}  # fd -> client, connect in progress

    def on_readable(c, now):
        while True:
            try:
                got = c.sock.recv_into(view)
            except BlockingIOError:
                return
            except OSError as e:
                c.error = errno.errorcode.get(e.errno, str(e.errno))
                got = 0
            if got == 0:
                c.closed = True
                sel.unregister(c.sock)
                c.sock.close()
                return
            if c.header is not None:
                c.header += bytes(view[:got])
                end = c.header.find(b"\r\n\r\n")
                if end < 0:
                    if len(c.header) > 65536:
                        c.error = "header"
                        c.header = None
                    continue
                got = len(c.header) - end - 4
                c.header = None
                if got == 0:
                    continue
            if c.first_byte is None:
                c.first_byte = now
            elif now - c.last_t > gap:
                c.bursts.append((c.last_t, c.body))
            c.body += got
            c.last_t = now
            if got < RECV_SIZE:
                return

    t_start = time.monotonic()
    next_connect = t_start
    connected = 0
    phase = "ramp"
    w0 = w1 = None
    cpu0 = cpu1 = None
    ramp_done_at = None
    deadline_ramp = t_start + n / ramp_per_s + 60
    while True:
        now = time.monotonic()
        while connected < n and now >= next_connect:
            s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            s.setblocking(False)
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
            c = Client(s)
            clients.append(c)
            rc = s.connect_ex(("127.0.0.1", port))
            if rc not in (0, errno.EINPROGRESS):
                c.error = "connect " + errno.errorcode.get(rc, str(rc))
                c.closed = True
                s.close()
            else:
                sel.register(s, selectors.EVENT_WRITE, c)
                pending[s.fileno()] = c
            connected += 1
            next_connect += 1.0 / ramp_per_s
        for key, events in sel.select(timeout=0.01 if connected < n else 0.05):
            c = key.data
            if key.fd in pending:
                del pending[key.fd]
                err = c.sock.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
                if err:
                    c.error = "connect " + errno.errorcode.get(err, str(err))
                    c.closed = True
                    sel.unregister(c.sock)
                    c.sock.close()
                    continue
                c.sock.send(request)  # tiny: fits an empty socket buffer
                sel.modify(c.sock, selectors.EVENT_READ, c)
            else:
                on_readable(c, time.monotonic())
        now = time.monotonic()
        if phase == "ramp":
            started = sum(1 for c in clients if c.first_byte is not None or c.closed)
            if connected == n and (started == n or now > deadline_ramp):
                phase = "warmup"
                ramp_done_at = now
                print("CONNECTED %d %.3f" % (started, now), flush=True)
        elif phase == "warmup" and now >= ramp_done_at + warmup:
            phase = "window"
            w0 = now
            cpu0 = _cpu_seconds()
            for c in clients:
                c.at_w0 = c.body
            print("WINDOW_START %.6f" % w0, flush=True)
        elif phase == "window" and now >= w0 + window:
            phase = "tail"
            w1 = now
            cpu1 = _cpu_seconds()
            for c in clients:
                c.at_w1 = c.body
            print("WINDOW_END %.6f" % w1, flush=True)
        elif phase == "tail" and now >= w1 + tail:
            break

    per_client = []
    for c in clients:
        if c.last_t is not None and time.monotonic() - c.last_t > gap:
            c.bursts.append((c.last_t, c.body))  # the burst in progress has ended
        ends = [b for b in c.bursts if w0 <= b[0] <= w1]
        window_rate = ((c.at_w1 or 0) - (c.at_w0 or 0)) / (w1 - w0)
        if len(ends) >= 3 and ends[-1][0] > ends[0][0]:
            rate = (ends[-1][1] - ends[0][1]) / (ends[-1][0] - ends[0][0])
        else:
            rate = window_rate  # too few bursts (or one continuous flow): plain count
        gaps = [b[0] - a[0] for a, b in zip(ends, ends[1:])]
        per_client.append({"rate": rate, "window_rate": window_rate,
                           "max_gap": max(gaps) if gaps else None,
                           "ended": c.closed,
                           "error": c.error})
        if not c.closed:
            c.sock.close()
    result = {"clients": per_client, "window": w1 - w0, "cpu_seconds": cpu1 - cpu0}
    print("RESULT " + json.dumps(result), flush=True)


def main(argv):
    import argparse
    p = argparse.ArgumentParser(prog="loadgen")
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--target", required=True)
    p.add_argument("--clients", type=int, required=True)
    p.add_argument("--ramp", type=float, default=100.0, help="new connections per second")
    p.add_argument("--warmup", type=float, default=10.0)
    p.add_argument("--window", type=float, default=30.0)
    p.add_argument("--gap", type=float, default=0.35, help="silence that ends a burst (s)")
    p.add_argument("--tail", type=float, default=3.0)
    a = p.parse_args(argv)
    run(a.port, a.target, a.clients, a.ramp, a.warmup, a.window, a.gap, a.tail)
