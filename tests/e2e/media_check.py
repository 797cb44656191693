"""Checks that what skerir delivered is the sample, whole and in order, and that it plays.

Two independent checks:

1. Bytes. skerir's log names every segment it delivered ("got chunk (seq N) from URL with size
   S, ..."). The output must be exactly those segments' clear bytes, in that order: for the
   encrypted sample this proves decryption byte for byte, whichever variants were chosen.
2. Media. ffprobe must read the output without a single error line, find one H.264 and one AAC
   stream, see timestamps without holes, and a duration within 10 % of the delivered segments'
   EXTINF sum; ffmpeg must decode every frame without an error.

The timestamp rule: all variants are encoded from one source on one 90 kHz timeline, so
consecutive frames of a stream are exactly one frame duration apart, across segment and
variant boundaries alike. In file order the decoding timestamps must strictly grow (a repeated
or reordered segment breaks that), and sorted presentation timestamps may be at most 1.5 frame
durations apart (a lost segment leaves a 2 s hole, a lost frame a 2-frame one; the half frame
absorbs rounding). Frames are 40 ms of video (25 fps) and 21.3 ms of audio (1024 samples at
48 kHz). A looping live origin restarts the timestamps at every wrap of the presentation, so
live output is cut at the wraps and each run is checked on its own.
"""

import json
import os
import re
import statistics
import subprocess
import urllib.parse

from harness import Failure

CHUNK_LINE = re.compile(r"^got chunk \(seq (\d+)\) from (\S+) with size (\d+), speed (\S+) kbps$")
DURATION_TOLERANCE = 0.10
GAP_TOLERANCE_FRAMES = 1.5


class Chunk:
    """One "got chunk" line of skerir's log."""

    def __init__(self, seq, url, size):
        self.seq = seq
        self.url = url
        self.size = size

    def __repr__(self):
        return "Chunk(%d, %s, %d)" % (self.seq, self.url, self.size)


RETRY_LINE = re.compile(r"^retry chunk get from (\S+) starting from byte (\d+)$")


def resume_points(err_lines):
    """{url: {byte offsets}} of the transfers skerir resumed with a Range request. A resumed
    segment is logged with the size of its last request only: the whole less the offset."""
    points = {}
    for line in err_lines:
        m = RETRY_LINE.match(line)
        if m and int(m.group(2)) > 0:
            points.setdefault(m.group(1), set()).add(int(m.group(2)))
    return points


def delivered_chunks(lines):
    chunks = []
    for line in lines:
        m = CHUNK_LINE.match(line)
        if m:
            chunks.append(Chunk(int(m.group(1)), m.group(2), int(m.group(3))))
    return chunks


class Segment:
    """A segment file of the sample as an origin serves it, with its clear twin."""

    def __init__(self, served_path, clear_path, duration, variant, number):
        self.served_path = served_path
        self.clear_path = clear_path
        self.duration = duration
        self.variant = variant
        self.number = number  # position in the presentation, from 1
        self._clear = None

    def served_size(self):
        return os.path.getsize(self.served_path)

    def clear_bytes(self):
        if self._clear is None:
            with open(self.clear_path, "rb") as f:
                self._clear = f.read()
        return self._clear


def read_media_playlist(path):
    """[(duration, uri)] of a media playlist file."""
    entries = []
    duration = None
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.strip()
            if line.startswith("#EXTINF:"):
                duration = float(line[len("#EXTINF:"):].split(",")[0])
            elif line and not line.startswith("#"):
                entries.append((duration, line))
                duration = None
    return entries


def url_path(url):
    """The path of an absolute URL without its leading "/"; placeholder hosts ("@", "~") are
    not valid host names for urllib, so the authority is cut by hand."""
    rest = url.split("://", 1)[-1]
    return urllib.parse.unquote(rest[rest.find("/"):].split("?")[0]).lstrip("/")


class Catalogue:
    """Every segment of the sample, found by the path of the URL it is served under."""

    def __init__(self, sample_dir):
        self.sample_dir = sample_dir
        self.by_path = {}
        self.presentation_length = {}
        clear_root = os.path.join(sample_dir, "vod", "clear")
        if not os.path.isdir(clear_root):
            raise Failure("no sample in %s: run scripts/make-sample.sh" % sample_dir)
        for kind in ("clear", "aes"):
            root = os.path.join(sample_dir, "vod", kind)
            for name in sorted(os.listdir(root)):
                if not re.match(r"^v\d+\.m3u8$", name):
                    continue
                variant = name[:-len(".m3u8")]
                entries = read_media_playlist(os.path.join(root, name))
                self.presentation_length[variant] = len(entries)
                for number, (duration, uri) in enumerate(entries, start=1):
                    path = url_path(uri)
                    clear_path = os.path.join(sample_dir, path.replace("vod/aes/", "vod/clear/", 1))
                    self.by_path[path] = Segment(os.path.join(sample_dir, path), clear_path,
                                                 duration, variant, number)

    def segment(self, url):
        seg = self.by_path.get(url_path(url))
        if seg is None:
            raise Failure("skerir delivered %s, which is not a segment of the sample" % url)
        return seg

    def segments(self, kind, variant):
        prefix = "vod/%s/%s/" % (kind, variant)
        return [s for p, s in sorted(self.by_path.items()) if p.startswith(prefix)]


class Delivery:
    """The segments found in an output, in order, with their byte ranges."""

    def __init__(self):
        self.items = []  # (chunk, segment, offset)
        self.complete_bytes = 0  # output bytes covered by whole segments
        self.tail_bytes = 0  # bytes after them: a segment cut short when the client left

    def pairs(self):
        return [(seg.variant, chunk.seq) for chunk, seg, _ in self.items]

    def duration(self):
        return sum(seg.duration for _, seg, _ in self.items)


def match_delivery(body, chunks, catalogue, live, resumed=None):
    """Matches the output against the logged chunks. VOD (live=False): the output must be the
    chunks exactly, nothing more. Live: the client hangs up at some point, so the output may end
    inside a segment, and chunks logged after that point never reached it. `resumed` is what
    resume_points() found in skerir's error log."""
    resumed = resumed or {}
    delivery = Delivery()
    pos = 0
    for chunk in chunks:
        seg = catalogue.segment(chunk.url)
        data = seg.clear_bytes()
        piece = body[pos:pos + len(data)]
        if piece != data:
            if live and len(piece) < len(data) and data.startswith(piece):
                delivery.tail_bytes = len(piece)
                pos += len(piece)
                break
            at = next((i for i in range(min(len(piece), len(data))) if piece[i] != data[i]),
                      min(len(piece), len(data)))
            raise Failure("output bytes from %d on are not %s (seq %d): first difference at "
                          "byte %d of the segment (%d of %d segment bytes present)"
                          % (pos, seg.clear_path, chunk.seq, at, len(piece), len(data)))
        sizes = {seg.served_size()} | {seg.served_size() - p for p in resumed.get(chunk.url, ())}
        if chunk.size not in sizes:
            raise Failure("skerir logged %d bytes for seq %d from %s; the origin serves %d"
                          % (chunk.size, chunk.seq, chunk.url, seg.served_size()))
        delivery.items.append((chunk, seg, pos))
        pos += len(data)
    delivery.complete_bytes = pos - delivery.tail_bytes
    if pos != len(body):
        if not live:
            raise Failure("output has %d bytes after the %d logged segments"
                          % (len(body) - pos, len(chunks)))
        # A live client may receive part of a segment whose line skerir had not printed yet.
        largest = max(os.path.getsize(s.clear_path) for s in catalogue.by_path.values())
        if len(body) - pos > largest:
            raise Failure("output has %d bytes after the logged segments, more than one segment"
                          % (len(body) - pos))
        delivery.tail_bytes += len(body) - pos
    return delivery


def check_vod_sequence(delivery, expected_count):
    seqs = [chunk.seq for chunk, _, _ in delivery.items]
    if seqs != list(range(1, expected_count + 1)):
        raise Failure("delivered sequence numbers %s, expected 1..%d once each in order"
                      % (seqs, expected_count))


def check_live_sequence(delivery, minimum):
    seqs = [chunk.seq for chunk, _, _ in delivery.items]
    if len(seqs) < minimum:
        raise Failure("only %d whole segments delivered (%s), expected at least %d"
                      % (len(seqs), seqs, minimum))
    for a, b in zip(seqs, seqs[1:]):
        if b != a + 1:
            raise Failure("live sequence numbers jump from %d to %d: %s" % (a, b, seqs))


def live_runs(delivery):
    """Splits the delivered segments where the looping origin wrapped around. Returns a list of
    (first byte, end byte, duration) of each run of continuous timestamps."""
    runs = []
    start = 0
    duration = 0.0
    previous = None
    for chunk, seg, offset in delivery.items:
        if previous is not None and seg.number <= previous:
            runs.append((start, offset, duration))
            start, duration = offset, 0.0
        duration += seg.duration
        previous = seg.number
    if delivery.items:
        runs.append((start, delivery.complete_bytes, duration))
    return runs


def _run(argv, timeout=300):
    try:
        return subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=timeout)
    except subprocess.TimeoutExpired:
        raise Failure("%s took more than %d s" % (argv[0], timeout))


def probe(path, expected_duration, label):
    """The media checks on one file of continuous timestamps. Returns a one-line summary."""
    r = _run(["ffprobe", "-v", "error", "-show_streams", "-show_packets", "-of", "json", path])
    errors = r.stderr.decode("utf-8", "replace").strip()
    if r.returncode != 0 or errors:
        raise Failure("ffprobe reports errors on %s (status %d):\n%s"
                      % (label, r.returncode, errors[:3000]))
    info = json.loads(r.stdout)
    streams = info.get("streams", [])
    kinds = sorted(s.get("codec_type") for s in streams)
    if kinds != ["audio", "video"]:
        raise Failure("%s has streams %s, expected one video and one audio" % (label, kinds))
    codecs = {s["codec_type"]: s.get("codec_name") for s in streams}
    if codecs != {"video": "h264", "audio": "aac"}:
        raise Failure("%s has codecs %s, expected h264 and aac" % (label, codecs))

    first, last = None, None
    for s in streams:
        kind = s["codec_type"]
        packets = [p for p in info.get("packets", []) if p["stream_index"] == s["index"]]
        if len(packets) < 2:
            raise Failure("%s: only %d %s packets" % (label, len(packets), kind))
        try:
            dts = [float(p["dts_time"]) for p in packets]
            pts = sorted(float(p["pts_time"]) for p in packets)
            frame = statistics.median(float(p["duration_time"]) for p in packets)
        except (KeyError, ValueError) as e:
            raise Failure("%s: %s packet without a timestamp or duration (%s)" % (label, kind, e))
        for i in range(1, len(dts)):
            if dts[i] <= dts[i - 1]:
                raise Failure("%s: %s decoding time goes from %.3f s to %.3f s at packet %d: data "
                              "repeated or out of order" % (label, kind, dts[i - 1], dts[i], i))
        for a, b in zip(pts, pts[1:]):
            if b - a > GAP_TOLERANCE_FRAMES * frame:
                raise Failure("%s: %s timestamps jump by %.3f s after %.3f s (one frame is %.3f s):"
                              " something is missing" % (label, kind, b - a, a, frame))
        start, end = pts[0], pts[-1] + frame
        first = start if first is None else min(first, start)
        last = end if last is None else max(last, end)

    span = last - first
    if abs(span - expected_duration) > DURATION_TOLERANCE * expected_duration:
        raise Failure("%s lasts %.3f s; the delivered segments add up to %.3f s"
                      % (label, span, expected_duration))

    r = _run(["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-f", "null", "-"])
    errors = r.stderr.decode("utf-8", "replace").strip()
    if r.returncode != 0 or errors:
        raise Failure("ffmpeg cannot decode %s cleanly (status %d):\n%s"
                      % (label, r.returncode, errors[:3000]))
    return "%s: h264+aac, %.2f s of timestamps for %.2f s of segments" % (
        label, span, expected_duration)


def check_media(body, delivery, workdir, name, live):
    """Writes the output (cut at the wraps of a live loop) to files and probes each."""
    runs = live_runs(delivery) if live else [(0, delivery.complete_bytes, delivery.duration())]
    if not live and len(runs) != 1:
        raise Failure("internal: VOD output in %d runs" % len(runs))
    summaries = []
    for i, (begin, end, duration) in enumerate(runs):
        path = os.path.join(workdir, "%s.run%d.ts" % (name, i) if live else "%s.ts" % name)
        with open(path, "wb") as f:
            f.write(body[begin:end])
        summaries.append(probe(path, duration, "%s output%s" % (
            name, " (run %d of %d)" % (i + 1, len(runs)) if live else "")))
    return summaries
