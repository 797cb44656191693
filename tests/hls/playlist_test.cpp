// The master and media playlist parsers, fed text.
#include <gtest/gtest.h>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"
#include "support/log_capture.h"

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
  std::string url, key_url;
  bool is_last;
  bool operator==(const ChunkView&) const = default;
};
std::ostream& operator<<(std::ostream& os, const ChunkView& c) {
  return os << c.sequence << " " << c.url << " key=" << c.key_url << (c.is_last ? " last" : "");
}

TEST(MediaPlaylistText, NumbersSegmentsAndCarriesKeysAndTheEnd) {
  const struct {
    std::string text;
    bool ok;
    uint32_t target_duration;
    std::vector<ChunkView> chunks;
  } cases[] = {
      {"#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:100\n#EXTINF:10,\nhttp://s/a\n"
       "#EXTINF:10,\nhttp://s/b\nhttp://s/c\n#EXT-X-ENDLIST\n",
       true,
       10,
       {{100, "http://s/a", "", false},
        {101, "http://s/b", "", false},
        {102, "http://s/c", "", true}}},
      {"#EXTM3U\n#EXT-X-ENDLIST\n  http://s/a\t\n", true, 7, {{0, "http://s/a", "", false}}},
      {"#EXTM3U\nhttp://s/a\n#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/1\"\nhttp://s/b\n"
       "#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/2\"  \nhttp://s/c\n",
       true,
       7,
       {{0, "http://s/a", "", false},
        {1, "http://s/b", "http://k/1", false},
        {2, "http://s/c", "http://k/2", false}}},
      {"#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:x5\n#EXT-X-TARGETDURATION:abc\nu\n",
       true,
       0,
       {{0, "u", "", false}}},
      {"#EXTM3U8\nhttp://s/a\n", false, 7, {}},
  };
  for (const auto& c : cases) {
    VariantPlaylist playlist("v");
    playlist.target_duration = 7;
    playlist.chunks.push(Chunk{9, "stale", false, ""});
    std::string text = c.text;
    EXPECT_EQ(playlist.parse_playlist(&text), c.ok) << c.text;
    EXPECT_EQ(playlist.target_duration, c.target_duration) << c.text;
    std::vector<ChunkView> got;
    for (; !playlist.chunks.empty(); playlist.chunks.pop()) {
      const Chunk& ch = playlist.chunks.front();
      got.push_back({ch.sequence, ch.url, ch.key_url, ch.is_last});
    }
    EXPECT_EQ(got, c.chunks) << c.text;
  }
}

}  // namespace
}  // namespace skerir
