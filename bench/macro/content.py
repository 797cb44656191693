"""Test presentations for the macro benchmark, made once with ffmpeg and cached.

Layout under <cache>/media (served by nginx as its document root):
  bulk/seg_NNNN.ts       one variant, >= 500 MiB of lossless H.264 in segments of a few MiB
  vod/vK/seg_NNNN.ts     three variants of one 60 s clip (K = 0, 1, 2, rising bitrate)
  live/seg_NNN.ts        15 segments of 2 s at about 3 Mbit/s, looped by the live origin
  aes/...                AES-128-CBC copies of bulk/ and vod/ (zero IV) and aes/key.bin
  manifest.json          what was made: files, durations, sizes; its presence marks a done cache

Playlists are not cached: they carry absolute URLs with the origin's port, so the harness
writes them for each run (see write_playlists).
"""

import json
import os
import shutil
import subprocess

MANIFEST_VERSION = 3
BULK_MIN_BYTES = 500 * 1024 * 1024
LIVE_TARGET_DURATION = 2
VOD_VARIANTS = [  # (width, height, bit/s)
    (480, 270, 600_000),
    (854, 480, 1_500_000),
    (1280, 720, 3_500_000),
]
LIVE_BITRATE = 3_000_000
KEY = bytes(range(0x10, 0x20))  # fixed, so that cached encrypted copies stay valid


def _ffmpeg(args):
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y"] + args, check=True)


def _segments_of(playlist_path):
    """(duration, file name) of each segment of an ffmpeg-written media playlist."""
    out, dur = [], None
    with open(playlist_path) as f:
        for line in f:
            line = line.strip()
            if line.startswith("#EXTINF:"):
                dur = float(line[len("#EXTINF:"):].split(",")[0])
            elif line and not line.startswith("#"):
                out.append((dur, line))
    return out


def _hls(input_args, codec_args, out_dir, seg_time):
    os.makedirs(out_dir, exist_ok=True)
    _ffmpeg(input_args + codec_args + [
        "-f", "hls", "-hls_time", str(seg_time), "-hls_list_size", "0", "-start_number", "1",
        "-hls_segment_filename", os.path.join(out_dir, "seg_%04d.ts"),
        os.path.join(out_dir, "index.m3u8")])
    segs = _segments_of(os.path.join(out_dir, "index.m3u8"))
    os.remove(os.path.join(out_dir, "index.m3u8"))
    return [{"file": name, "duration": d, "size": os.path.getsize(os.path.join(out_dir, name))}
            for d, name in segs]


def _encrypt_tree(src_dir, dst_dir, segments):
    os.makedirs(dst_dir, exist_ok=True)
    for s in segments:
        subprocess.run(["openssl", "enc", "-aes-128-cbc", "-K", KEY.hex(), "-iv", "00" * 16,
                        "-in", os.path.join(src_dir, s["file"]),
                        "-out", os.path.join(dst_dir, s["file"])], check=True)
    return [dict(s, size=os.path.getsize(os.path.join(dst_dir, s["file"]))) for s in segments]


def prepare(cache):
    """Makes the media under <cache>/media unless a manifest of this version is there."""
    media = os.path.join(cache, "media")
    manifest_path = os.path.join(media, "manifest.json")
    try:
        with open(manifest_path) as f:
            manifest = json.load(f)
        if manifest.get("version") == MANIFEST_VERSION:
            return manifest
    except (OSError, ValueError):
        pass
    shutil.rmtree(media, ignore_errors=True)
    os.makedirs(media)
    print("macro: preparing media in %s (once; takes a minute or two)" % media, flush=True)

    # Bulk: lossless H.264 of a noisy picture is incompressible enough to give about 22 MB of
    # real video per second at 960x540 and encodes fast; a keyframe every 5 frames gives
    # segments of a few MiB.
    bulk_seconds = 26
    while True:
        bulk = _hls(["-f", "lavfi", "-i", "testsrc2=size=960x540:rate=25",
                     "-vf", "noise=alls=40:allf=t", "-t", str(bulk_seconds)],
                    ["-c:v", "libx264", "-preset", "ultrafast", "-qp", "0", "-g", "5",
                     "-keyint_min", "5", "-sc_threshold", "0"],
                    os.path.join(media, "bulk"), 0.2)
        if sum(s["size"] for s in bulk) >= BULK_MIN_BYTES:
            break
        shutil.rmtree(os.path.join(media, "bulk"))
        bulk_seconds += 6

    # VOD: one 60 s clip in three sizes, 2 s segments aligned across variants.
    vod = []
    for k, (w, h, bps) in enumerate(VOD_VARIANTS):
        vod.append({"bandwidth": bps, "segments": _hls(
            ["-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=25" % (w, h), "-t", "60"],
            ["-c:v", "libx264", "-preset", "ultrafast", "-b:v", str(bps),
             "-maxrate", str(bps), "-bufsize", str(bps), "-g", "50", "-keyint_min", "50",
             "-sc_threshold", "0"],
            os.path.join(media, "vod", "v%d" % k), 2)})

    # Live: constant bitrate (filler NAL units) so every 2 s segment is about the same size.
    live = _hls(["-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25", "-t", "30"],
                ["-c:v", "libx264", "-preset", "ultrafast", "-b:v", str(LIVE_BITRATE),
                 "-minrate", str(LIVE_BITRATE), "-maxrate", str(LIVE_BITRATE), "-bufsize", "1M",
                 "-x264-params", "nal-hrd=cbr", "-g", "50", "-keyint_min", "50",
                 "-sc_threshold", "0"],
                os.path.join(media, "live"), LIVE_TARGET_DURATION)

    aes = os.path.join(media, "aes")
    os.makedirs(aes)
    with open(os.path.join(aes, "key.bin"), "wb") as f:
        f.write(KEY)
    bulk_aes = _encrypt_tree(os.path.join(media, "bulk"), os.path.join(aes, "bulk"), bulk)
    vod_aes = []
    for k, v in enumerate(vod):
        vod_aes.append({"bandwidth": v["bandwidth"], "segments": _encrypt_tree(
            os.path.join(media, "vod", "v%d" % k), os.path.join(aes, "vod", "v%d" % k),
            v["segments"])})

    manifest = {"version": MANIFEST_VERSION, "bulk": bulk, "bulk_aes": bulk_aes, "vod": vod,
                "vod_aes": vod_aes, "live": live}
    with open(manifest_path + ".tmp", "w") as f:
        json.dump(manifest, f)
    os.rename(manifest_path + ".tmp", manifest_path)
    return manifest


def _media_playlist(base, segments, key_url=None):
    target = max(1, int(max(s["duration"] for s in segments) + 0.999))
    lines = ["#EXTM3U", "#EXT-X-VERSION:3", "#EXT-X-TARGETDURATION:%d" % target,
             "#EXT-X-MEDIA-SEQUENCE:1", "#EXT-X-PLAYLIST-TYPE:VOD"]
    if key_url:
        lines.append('#EXT-X-KEY:METHOD=AES-128,URI="%s"' % key_url)
    for s in segments:
        lines.append("#EXTINF:%.6f," % s["duration"])
        lines.append(base + s["file"])
    lines.append("#EXT-X-ENDLIST")
    return "\n".join(lines) + "\n"


def _master(variants):
    """Only the header and stream-info/URI pairs: every other line would count as a variant."""
    lines = ["#EXTM3U"]
    for bandwidth, url in variants:
        lines.append("#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=%d" % bandwidth)
        lines.append(url)
    return "\n".join(lines) + "\n"


def write_playlists(manifest, pl_dir, origin, prefix=""):
    """Writes every VOD playlist into pl_dir (served as <origin>/pl/), their names prefixed with
    `prefix`; returns the master URLs."""
    os.makedirs(pl_dir, exist_ok=True)

    def put(name, text):
        with open(os.path.join(pl_dir, prefix + name), "w") as f:
            f.write(text)
        return "%s/pl/%s%s" % (origin, prefix, name)

    key_url = origin + "/aes/key.bin"
    bulk_bps = int(sum(s["size"] for s in manifest["bulk"]) * 8 /
                   sum(s["duration"] for s in manifest["bulk"]))
    urls = {}
    for name, segs, base, key in (
            ("bulk", manifest["bulk"], origin + "/bulk/", None),
            ("bulk_aes", manifest["bulk_aes"], origin + "/aes/bulk/", key_url)):
        media_url = put(name + "_media.m3u8", _media_playlist(base, segs, key))
        urls[name] = put(name + ".m3u8", _master([(bulk_bps, media_url)]))
        urls[name + "_segments"] = [base + s["file"] for s in segs]
        urls[name + "_bytes"] = sum(s["size"] for s in segs)
    for name, variants, root, key in (("vod", manifest["vod"], "/vod/", None),
                                      ("vod_aes", manifest["vod_aes"], "/aes/vod/", key_url)):
        entries = []
        for k, v in enumerate(variants):
            base = "%s%sv%d/" % (origin, root, k)
            entries.append((v["bandwidth"], put("%s_v%d.m3u8" % (name, k),
                                                _media_playlist(base, v["segments"], key))))
        urls[name] = put(name + ".m3u8", _master(entries))
    urls["live"] = put("live.m3u8", _master([(3_000_000, origin + "/pl/live_media.m3u8")]))
    return urls


def live_rate_bytes_per_s(manifest):
    segs = manifest["live"]
    return sum(s["size"] for s in segs) / sum(s["duration"] for s in segs)
