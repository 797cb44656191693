"""Process and socket plumbing for the end-to-end tests.

Every server the tests start is a `Process`: its output is read line by line on two threads so
that a test can wait for a line to appear (an event) instead of sleeping, and `Processes` stops
all of them on every path out of a test. Waits poll with generous deadlines, so the tests pass
on a busy machine; a deadline only decides how long a failure takes to be reported.
"""

import ctypes
import os
import re
import signal
import socket
import subprocess
import threading
import time

LOCALHOST = "127.0.0.1"


class Failure(Exception):
    """A check failed; the message says what was expected and what came instead."""


def _load_prctl():
    try:
        return ctypes.CDLL(None, use_errno=True).prctl
    except (OSError, AttributeError):
        return None


# Looked up here, in the parent: the child between fork and exec must not load libraries.
_PRCTL = _load_prctl()
_PR_SET_PDEATHSIG = 1


def _die_with_parent():
    # A test runner that kills the test on its time-out must not leave servers behind.
    if _PRCTL is not None:
        _PRCTL(_PR_SET_PDEATHSIG, signal.SIGTERM)


class Process:
    """A child process whose standard output and error are collected as lines."""

    def __init__(self, name, argv, cwd=None):
        self.name = name
        self.argv = list(argv)
        self._cond = threading.Condition()
        self._lines = {"out": [], "err": []}
        self._eof = {"out": False, "err": False}
        self.proc = subprocess.Popen(self.argv, cwd=cwd, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     preexec_fn=_die_with_parent)
        self._readers = [
            threading.Thread(target=self._pump, args=(self.proc.stdout, "out"), daemon=True),
            threading.Thread(target=self._pump, args=(self.proc.stderr, "err"), daemon=True),
        ]
        for t in self._readers:
            t.start()

    @property
    def pid(self):
        return self.proc.pid

    def _pump(self, stream, key):
        for raw in iter(stream.readline, b""):
            line = raw.decode("utf-8", "replace").rstrip("\r\n")
            with self._cond:
                self._lines[key].append(line)
                self._cond.notify_all()
        stream.close()
        with self._cond:
            self._eof[key] = True
            self._cond.notify_all()

    def lines(self, key="out"):
        with self._cond:
            return list(self._lines[key])

    def running(self):
        return self.proc.poll() is None

    def wait_for(self, pattern, key="out", timeout=60.0, start=0):
        """Waits until a line at index >= start of stream `key` matches the regular expression
        `pattern`; returns (index, match). Fails when the deadline passes or the stream ends."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        i = start
        with self._cond:
            while True:
                lines = self._lines[key]
                while i < len(lines):
                    m = regex.search(lines[i])
                    if m:
                        return i, m
                    i += 1
                if self._eof[key]:
                    raise Failure("%s ended without printing a line matching %r\n%s"
                                  % (self.name, pattern, self.tail()))
                remaining = deadline - time.monotonic()
                if remaining <= 0:
                    raise Failure("%s printed no line matching %r within %.0f s\n%s"
                                  % (self.name, pattern, timeout, self.tail()))
                self._cond.wait(min(remaining, 0.5))

    def send_signal(self, sig):
        if self.running():
            self.proc.send_signal(sig)

    def wait_exit(self, timeout):
        """Waits for the process to end and for its output to be read to the end."""
        try:
            self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            raise Failure("%s did not exit within %.0f s" % (self.name, timeout))
        for t in self._readers:
            t.join(timeout=10)
        return self.proc.returncode

    def stop(self, sig=signal.SIGTERM, timeout=20.0):
        """Ends the process: `sig` first, SIGKILL if it is still there after `timeout`."""
        if self.running():
            self.proc.send_signal(sig)
            try:
                self.proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(timeout=timeout)
        for t in self._readers:
            t.join(timeout=10)

    def tail(self, count=25):
        with self._cond:
            out = self._lines["out"][-count:]
            err = self._lines["err"][-count:]
        return "--- last lines of %s (stdout):\n%s\n--- (stderr):\n%s" % (
            self.name, "\n".join(out), "\n".join(err))

    def save_logs(self, directory):
        for key in ("out", "err"):
            path = os.path.join(directory, "%s.%s.log" % (self.name, key))
            with open(path, "w", encoding="utf-8") as f:
                f.write("\n".join(self.lines(key)) + "\n")


class Processes:
    """Owns the processes of one test; `stop_all` (from a finally block) ends every one."""

    def __init__(self):
        self.all = []

    def start(self, name, argv, cwd=None):
        taken = {p.name for p in self.all}
        unique, n = name, 1
        while unique in taken:  # names become log file names
            n += 1
            unique = "%s-%d" % (name, n)
        p = Process(unique, argv, cwd)
        self.all.append(p)
        return p

    def stop_all(self):
        for p in reversed(self.all):
            p.stop()

    def save_logs(self, directory):
        for p in self.all:
            p.save_logs(directory)


def port_accepts(port):
    try:
        with socket.create_connection((LOCALHOST, port), timeout=2):
            return True
    except OSError:
        return False


def wait_port(port, process, timeout=60.0):
    """Waits until `port` accepts connections; fails at once if `process` has exited."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if port_accepts(port):
            return
        if not process.running():
            process.wait_exit(10)
            raise Failure("%s exited (status %s) before accepting on port %d\n%s"
                          % (process.name, process.proc.returncode, port, process.tail()))
        time.sleep(0.1)
    raise Failure("%s does not accept on port %d after %.0f s\n%s"
                  % (process.name, port, timeout, process.tail()))


def require_free_port(port, who):
    if port_accepts(port):
        raise Failure("port %d, which %s needs, is already in use: stop whatever listens there"
                      % (port, who))


def free_port():
    """A port that was free a moment ago (for servers that cannot bind port 0 themselves)."""
    with socket.socket() as s:
        s.bind((LOCALHOST, 0))
        return s.getsockname()[1]


class HttpReply:
    """The status and body of a reply read from a raw socket."""

    def __init__(self, status, reason, headers, sock, first_body):
        self.status = status
        self.reason = reason
        self.headers = headers
        self._sock = sock
        self._pending = first_body

    def read(self, max_bytes=1 << 20):
        """Up to max_bytes of body; b"" once the server has closed the connection."""
        if self._pending:
            data, self._pending = self._pending[:max_bytes], self._pending[max_bytes:]
            return data
        return self._sock.recv(max_bytes)

    def read_to_end(self, timeout):
        """The whole body, up to the server's close. Fails if the close has not come in time."""
        body, closed = self._read_until(timeout, 5.0)
        if not closed:
            raise Failure("the reply did not end within %.0f s (%d bytes so far)"
                          % (timeout, len(body)))
        return body

    def read_for(self, seconds):
        """The body received during `seconds`, or less if the server closes first."""
        return self._read_until(seconds, 1.0)[0]

    def _read_until(self, seconds, poll):
        """Reads for at most `seconds`; returns the bytes and whether the server closed."""
        deadline = time.monotonic() + seconds
        parts = []
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                return b"".join(parts), False
            self._sock.settimeout(min(remaining, poll))
            try:
                data = self.read()
            except socket.timeout:
                continue
            if not data:
                return b"".join(parts), True
            parts.append(data)

    def close(self):
        self._sock.close()


def http_request(port, path, timeout=30.0):
    """Sends a GET for `path` on a new connection and returns the HttpReply once the header block
    has arrived. The body is left on the socket for the caller to read."""
    sock = socket.create_connection((LOCALHOST, port), timeout=timeout)
    try:
        sock.sendall(("GET %s HTTP/1.1\r\nHost: %s:%d\r\nConnection: close\r\n\r\n"
                      % (path, LOCALHOST, port)).encode("ascii"))
        head = b""
        deadline = time.monotonic() + timeout
        while b"\r\n\r\n" not in head:
            if time.monotonic() > deadline or len(head) > 65536:
                raise Failure("no complete reply header for %s within %.0f s" % (path, timeout))
            data = sock.recv(65536)
            if not data:
                raise Failure("connection closed before a reply header for %s (got %r)"
                              % (path, head[:200]))
            head += data
        head, body = head.split(b"\r\n\r\n", 1)
        lines = head.decode("iso-8859-1").split("\r\n")
        parts = lines[0].split(" ", 2)
        if len(parts) < 2 or not parts[0].startswith("HTTP/") or not parts[1].isdigit():
            raise Failure("bad status line for %s: %r" % (path, lines[0]))
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.strip().lower()] = value.strip()
        return HttpReply(int(parts[1]), parts[2] if len(parts) > 2 else "", headers, sock, body)
    except BaseException:
        sock.close()
        raise
