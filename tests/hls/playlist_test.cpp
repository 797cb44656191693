// The master and media playlist parsers, fed text.
#include <gtest/gtest.h>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using test::LogCapture;
using Variants = std::vector<std::pair<uint64_t, std::string>>;

TEST(MasterPlaylistText, GivesEachUriTheBandwidthOfTheStreamInfoBeforeIt) {
  const struct {
    std::string text;
    bool ok;
    Variants variants;
    std::string err;
  } cases[] = {
      {"#EXTM3U\n#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=1280000,RESOLUTION=1x1\nhttp://a/1\n"
       "#EXT-X-STREAM-INF:BANDWIDTH=2560000\n  http://a/2  \nhttp://a/3\n",
       true,
       {{1280000, "http://a/1"}, {2560000, "http://a/2"}, {2560000, "http://a/3"}},
       ""},
      {" #EXTM3U \nhttp://a/0\n", true, {{0, "http://a/0"}}, ""},
      {"#EXTM3U x\nhttp://a/1\n", false, {}, "This is not m3u playlist!"},
      {"", false, {}, "This is not m3u playlist!"},
      {"#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=5\nhttp://a/1\n#EXT-X-STREAM-INF:RES=1\nhttp://a/2\n",
       false,
       {{5, "http://a/1"}},
       "Variant does not specify bandwidth!"},
      {"#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=99999999999999999999\nu\n",
       true,
       {{9223372036854775807ull, "u"}},
       ""},
      // The usual shape: version and independence tags, renditions and I-frame playlists that
      // name no variant, quoted commas, an average before the peak, CRLF and blank lines.
      {"#EXTM3U\r\n#EXT-X-VERSION:6\r\n#EXT-X-INDEPENDENT-SEGMENTS\r\n\r\n"
       "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aac\",NAME=\"en\",URI=\"a/en.m3u8\"\r\n"
       "#EXT-X-STREAM-INF:AVERAGE-BANDWIDTH=900000,CODECS=\"avc1.4d401f,mp4a.40.2\",BANDWIDTH="
       "1000000,AUDIO=\"aac\"\r\nv1/prog.m3u8\r\n"
       "#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=90000,URI=\"v1/iframe.m3u8\"\r\n"
       "# a comment\r\n#EXT-X-STREAM-INF:CODECS=\"x,BANDWIDTH=7\", "
       "BANDWIDTH=2000000\r\nv2.m3u8\r\n",
       true,
       {{1000000, "v1/prog.m3u8"}, {2000000, "v2.m3u8"}},
       ""},
  };
  for (const auto& c : cases) {
    Stats stats;
    CBuffer buffer;
    MasterPlaylist master("m", &buffer, 0, &stats, 0);
    master.variants.push_back({1, "stale", true});
    LogCapture::instance().clear();
    std::string text = c.text;
    EXPECT_EQ(master.parse_playlist(&text), c.ok) << c.text;
    Variants got;
    for (const auto& v : master.variants) got.emplace_back(v.bandwidth, v.url);
    EXPECT_EQ(got, c.variants) << c.text;
    EXPECT_EQ(LogCapture::instance().lines(LogStream::err),
              c.err.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.err});
  }
}

struct ChunkView {
  uint64_t sequence;
  std::string url, key_url, iv;
  bool is_last;
  uint64_t offset = 0, length = 0;
  std::string unplayable;
  bool operator==(const ChunkView&) const = default;
};
std::ostream& operator<<(std::ostream& os, const ChunkView& c) {
  return os << c.sequence << " " << c.url << " key=" << c.key_url << " iv=" << c.iv.size()
            << (c.is_last ? " last" : "") << " @" << c.offset << "+" << c.length << " "
            << c.unplayable;
}

TEST(MediaPlaylistText, NumbersSegmentsAndCarriesKeysRangesAndTheEnd) {
  const std::string iv("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16);
  const struct {
    std::string text;
    bool ok;
    uint32_t target_duration;
    std::vector<ChunkView> chunks;
  } cases[] = {
      {"#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:100\n#EXTINF:10,\nhttp://s/a\n"
       "#EXTINF:10,\nhttp://s/b\n#EXT-X-ENDLIST\n",
       true,
       10,
       {{100, "http://s/a", "", "", false}, {101, "http://s/b", "", "", true}}},
      {"#EXTM3U\n#EXT-X-ENDLIST\n  http://s/a\t\n", true, 7, {{0, "http://s/a", "", "", false}}},
      {"#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:x5\n#EXT-X-TARGETDURATION:abc\nu\n",
       true,
       0,
       {{0, "u", "", "", false}}},
      {"#EXTM3U8\nhttp://s/a\n", false, 7, {}},
      // The muxer's default output: version tag, float durations, relative names; CRLF and
      // blank lines elsewhere.
      {"#EXTM3U\r\n#EXT-X-VERSION:3\r\n#EXT-X-TARGETDURATION:4\r\n\r\n#EXT-X-MEDIA-SEQUENCE:7\r\n"
       "#EXTINF:4.004000,\r\nseg_007.ts\r\n\r\n#EXTINF:3.5,\r\nseg_008.ts?t=1\r\n#EXT-X-"
       "ENDLIST\r\n",
       true,
       4,
       {{7, "seg_007.ts", "", "", false}, {8, "seg_008.ts?t=1", "", "", true}}},
      // Keys: URI last or first, an IV, NONE for clear segments, methods skerir cannot play.
      {"#EXTM3U\na\n#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/1\"\nb\n"
       "#EXT-X-KEY:URI=\"k2,x\",IV=0X000102030405060708090A0b0C0d0E0F,METHOD=AES-128\nc\n"
       "#EXT-X-KEY:METHOD=NONE\nd\n#EXT-X-KEY:METHOD=AES-128,IV="
       "0x00010203040506070809000000000000\ne\n"
       "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"k3\"\nf\n#EXT-X-KEY:METHOD=AES-128,URI=\"k4\",IV="
       "0x12\ng\n",
       true,
       7,
       {{0, "a", "", "", false},
        {1, "b", "http://k/1", "", false},
        {2, "c", "k2,x", iv, false},
        {3, "d", "", "", false},
        {4, "e", "", "", false, 0, 0, "an AES-128 key tag without a URI"},
        {5, "f", "", "", false, 0, 0, "SAMPLE-AES encryption, which skerir cannot decrypt"},
        {6, "g", "", "", false, 0, 0, "a key tag with a malformed IV: 0x12"}}},
      // Byte ranges: an offset, or the end of the previous range; an fMP4 map ends playability.
      {"#EXTM3U\n#EXT-X-BYTERANGE:1000@500\nall.ts\n#EXT-X-BYTERANGE:200\nall.ts\nwhole.ts\n"
       "#EXT-X-MAP:URI=\"init.mp4\"\nx.m4s\n",
       true,
       7,
       {{0, "all.ts", "", "", false, 500, 1000},
        {1, "all.ts", "", "", false, 1500, 200},
        {2, "whole.ts", "", "", false},
        {3, "x.m4s", "", "", false, 0, 0,
         "fMP4 segments (#EXT-X-MAP:URI=\"init.mp4\"), which a transport-stream client cannot "
         "play"}}},
  };
  for (const auto& c : cases) {
    VariantPlaylist playlist("v");
    playlist.target_duration = 7;
    playlist.chunks.push(Chunk{9, "stale"});
    std::string text = c.text;
    EXPECT_EQ(playlist.parse_playlist(&text), c.ok) << c.text;
    EXPECT_EQ(playlist.target_duration, c.target_duration) << c.text;
    std::vector<ChunkView> got;
    for (; !playlist.chunks.empty(); playlist.chunks.pop()) {
      const Chunk& ch = playlist.chunks.front();
      got.push_back({ch.sequence, ch.url, ch.key_url, ch.iv, ch.is_last, ch.range_offset,
                     ch.range_length, ch.unplayable});
    }
    EXPECT_EQ(got, c.chunks) << c.text;
  }
}

}  // namespace
}  // namespace skerir
