#!/usr/bin/env bash
# Makes the sample presentation in sample/vod/ from nothing but ffmpeg's built-in test sources:
# a test pattern with a tone, 30 s, H.264 + AAC in MPEG-TS, 2 s segments, three variants.
#
#   sample/vod/clear/   master.m3u8, v1.m3u8 .. v3.m3u8, v1/ .. v3/seg_001.ts .. seg_015.ts
#   sample/vod/aes/     the same segments encrypted with AES-128-CBC, and sample.key
#   sample/vod/cache/   playlists for the clear segments through the cache placeholder hosts
#
# Every playlist names absolute URLs on http://127.0.0.1:7780/ (skerir does not resolve relative
# URIs), so the sample must be served on exactly that port (scripts/sample-origin.sh does).
# The output is deterministic for a given ffmpeg/x264 build (one encoder thread, bit-exact
# flags, fixed key); re-running on the same machine reproduces the committed files byte for byte.
#
# Usage: scripts/make-sample.sh        (needs ffmpeg and openssl: scripts/setup.sh media)
set -euo pipefail
cd "$(dirname "$0")/.."

readonly SAMPLE_PORT=7780
readonly BASE="http://127.0.0.1:${SAMPLE_PORT}"
readonly SECONDS_TOTAL=30
readonly SEGMENT_SECONDS=2
readonly FPS=25
# Fixed on purpose: the encrypted copy must come out the same every time. Not a secret.
readonly KEY_HEX=736b657269722d73616d706c652d6b31
readonly ZERO_IV=00000000000000000000000000000000

# name resolution peak-bit/s tone-Hz. BANDWIDTH is the peak (video cap plus audio); the test
# pattern compresses far below it, which keeps the sample small. The tones differ so that a
# variant switch can be heard.
readonly VARIANTS=(
  "v1 320x180 300000 440"
  "v2 640x360 800000 660"
  "v3 960x540 1600000 880"
)
readonly AUDIO_BITRATE=48000

for tool in ffmpeg openssl; do
  if ! command -v "$tool" >/dev/null; then
    echo "make-sample: $tool missing (run scripts/setup.sh media)" >&2
    exit 1
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

out=sample/vod
rm -rf "$out"
mkdir -p "$out/clear" "$out/aes" "$out/cache"

# A media playlist from the EXTINF values ffmpeg wrote. Usage:
#   media_playlist <ffmpeg playlist> <segment URL prefix> [key URL]
media_playlist() {
  local src=$1 prefix=$2 key_url=${3:-}
  echo "#EXTM3U"
  echo "#EXT-X-VERSION:3"
  echo "#EXT-X-TARGETDURATION:${SEGMENT_SECONDS}"
  # The first segment must be number 1: skerir never fetches a segment numbered 0.
  echo "#EXT-X-MEDIA-SEQUENCE:1"
  echo "#EXT-X-PLAYLIST-TYPE:VOD"
  # skerir reads the key URL from "URI=" to the end of the line, so URI must come last. It
  # decrypts with a zero IV, hence no IV attribute here.
  [ -n "$key_url" ] && echo "#EXT-X-KEY:METHOD=AES-128,URI=\"${key_url}\""
  awk -v prefix="$prefix" \
    '/^#EXTINF:/ { print; next } /^seg_[0-9]+\.ts$/ { print prefix $0 }' "$src"
  echo "#EXT-X-ENDLIST"
}

# A master playlist: "#EXTM3U", then per variant its stream-info line and its URI line, and
# nothing else, because skerir takes every other line of a master playlist for a variant URI.
#   master_playlist <variant URL prefix>
master_playlist() {
  local prefix=$1
  echo "#EXTM3U"
  for v in "${VARIANTS[@]}"; do
    read -r name res bw _ <<<"$v"
    echo "#EXT-X-STREAM-INF:BANDWIDTH=${bw},RESOLUTION=${res}"
    echo "${prefix}${name}.m3u8"
  done
}

key_file="$out/aes/sample.key"
printf "$(echo "$KEY_HEX" | sed 's/../\\x&/g')" >"$key_file"

for v in "${VARIANTS[@]}"; do
  read -r name res bw tone <<<"$v"
  video_kbit=$(((bw - AUDIO_BITRATE) / 1000))
  mkdir -p "$work/$name" "$out/clear/$name" "$out/aes/$name"
  echo "make-sample: encoding $name ($res, peak $bw bit/s)"
  # Keyframe every segment length and no scene-cut keyframes, so that every segment starts with
  # a keyframe and all variants cut at the same instants (a variant switch stays seamless).
  ffmpeg -nostdin -hide_banner -loglevel error -y \
    -f lavfi -i "testsrc=size=${res}:rate=${FPS}:duration=${SECONDS_TOTAL}" \
    -f lavfi -i "sine=frequency=${tone}:sample_rate=48000:duration=${SECONDS_TOTAL}" \
    -map 0:v -map 1:a \
    -c:v libx264 -preset veryfast -profile:v main -pix_fmt yuv420p -bf 0 -threads 1 \
    -g $((FPS * SEGMENT_SECONDS)) -keyint_min $((FPS * SEGMENT_SECONDS)) -sc_threshold 0 \
    -crf 23 -maxrate "${video_kbit}k" -bufsize "$((video_kbit * 2))k" \
    -c:a aac -b:a "$AUDIO_BITRATE" -ac 1 \
    -fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 \
    -f hls -hls_time "$SEGMENT_SECONDS" -hls_list_size 0 -hls_playlist_type vod -start_number 1 \
    -hls_segment_filename "$work/$name/seg_%03d.ts" "$work/$name.m3u8"

  for seg in "$work/$name"/seg_*.ts; do
    base=$(basename "$seg")
    cp "$seg" "$out/clear/$name/$base"
    # openssl pads with PKCS#7, as HLS AES-128 expects.
    openssl enc -aes-128-cbc -K "$KEY_HEX" -iv "$ZERO_IV" -in "$seg" -out "$out/aes/$name/$base"
  done

  media_playlist "$work/$name.m3u8" "$BASE/vod/clear/$name/" >"$out/clear/$name.m3u8"
  media_playlist "$work/$name.m3u8" "$BASE/vod/aes/$name/" "$BASE/vod/aes/sample.key" \
    >"$out/aes/$name.m3u8"
  # Placeholder hosts without a port: "@" (segments) and "~" (playlists) are replaced by the
  # cache servers of skerir's maps. The cache key is the first two path components, so every
  # segment of one presentation ("vod/clear") lands on the same server.
  media_playlist "$work/$name.m3u8" "http://@/vod/clear/$name/" >"$out/cache/$name.m3u8"
done

master_playlist "$BASE/vod/clear/" >"$out/clear/master.m3u8"
master_playlist "$BASE/vod/aes/" >"$out/aes/master.m3u8"
master_playlist "http://~/vod/cache/" >"$out/cache/master.m3u8"

echo "make-sample: done, $(du -sh sample | cut -f1) in sample/"
