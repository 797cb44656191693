#include "hls/master_playlist.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "buffer/cbuffer.h"
#include "resources/resource_stats.h"
#include "support/log_capture.h"

namespace skerir {
namespace {

using test::LogCapture;

struct ExpectedVariant {
  uint64_t bandwidth;
  std::string url;
};

class MasterPlaylistParse : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }

  void expect_variants(const std::vector<ExpectedVariant>& want) {
    ASSERT_EQ(master.variants.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
      SCOPED_TRACE("variant #" + std::to_string(i));
      EXPECT_EQ(master.variants[i].bandwidth, want[i].bandwidth);
      EXPECT_EQ(master.variants[i].url, want[i].url);
      EXPECT_FALSE(master.variants[i].invalid);
    }
  }

  Stats stats;
  CBuffer buffer;
  MasterPlaylist master{"http://o/master.m3u8", &buffer, 1 << 20, &stats, 0};
};

TEST_F(MasterPlaylistParse, EveryLineButAStreamInfoIsAVariantWithTheLastBandwidth) {
  const struct {
    const char* name;
    std::string text;
    std::vector<ExpectedVariant> variants;
  } cases[] = {
      {"BANDWIDTH followed by a comma and more attributes",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1280000,RESOLUTION=640x360\nhttp://o/lo.m3u8\n",
       {{1280000, "http://o/lo.m3u8"}}},
      {"BANDWIDTH as the last attribute",
       "#EXTM3U\n#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=2560000\nhttp://o/hi.m3u8\n",
       {{2560000, "http://o/hi.m3u8"}}},
      {"CR line ends",
       "#EXTM3U\r\n#EXT-X-STREAM-INF:BANDWIDTH=2560000\r\nhttp://o/hi.m3u8\r\n",
       {{2560000, "http://o/hi.m3u8"}}},
      {"several variants in file order",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=2000000\nhttp://o/2.m3u8\n"
       "#EXT-X-STREAM-INF:BANDWIDTH=500000\nhttp://o/0.m3u8\n",
       {{2000000, "http://o/2.m3u8"}, {500000, "http://o/0.m3u8"}}},
      {"two URI lines after one stream-info share its bandwidth",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\nhttp://o/a.m3u8\nhttp://o/b.m3u8\n",
       {{800000, "http://o/a.m3u8"}, {800000, "http://o/b.m3u8"}}},
      {"an empty line is a variant with an empty URL", "#EXTM3U\n\n", {{0, ""}}},
      {"a tag before any stream-info is a variant of bandwidth 0",
       "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-STREAM-INF:BANDWIDTH=800000\nhttp://o/a.m3u8\n",
       {{0, "#EXT-X-VERSION:3"}, {800000, "http://o/a.m3u8"}}},
      {"a tag after a stream-info takes its bandwidth",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\nhttp://o/a.m3u8\n#EXT-X-ENDLIST\n",
       {{800000, "http://o/a.m3u8"}, {800000, "#EXT-X-ENDLIST"}}},
      {"URI lines are trimmed",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n \thttp://o/a.m3u8 \n",
       {{1, "http://o/a.m3u8"}}},
      {"the first BANDWIDTH= in the line counts, even inside another attribute",
       "#EXTM3U\n#EXT-X-STREAM-INF:AVERAGE-BANDWIDTH=700000,BANDWIDTH=900000\nhttp://o/a.m3u8\n",
       {{700000, "http://o/a.m3u8"}}},
      {"bandwidths read as atol reads them",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=12ab\nx\n#EXT-X-STREAM-INF:BANDWIDTH=,3\ny\n"
       "#EXT-X-STREAM-INF:BANDWIDTH=99999999999999999999\nz\n",
       {{12, "x"}, {0, "y"}, {9223372036854775807ull, "z"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string text = c.text;
    EXPECT_TRUE(master.parse_playlist(&text));
    expect_variants(c.variants);
  }
  EXPECT_TRUE(LogCapture::instance().lines(LogStream::err).empty());
}

TEST_F(MasterPlaylistParse, RejectsWithoutM3uHeaderOrBandwidth) {
  const struct {
    const char* name;
    std::string text;
    std::vector<ExpectedVariant> kept;
    std::string error;
  } cases[] = {
      {"not an m3u text",
       "<html>\n#EXT-X-STREAM-INF:BANDWIDTH=1\nhttp://o/a.m3u8\n",
       {},
       "This is not m3u playlist!"},
      {"an empty text", "", {}, "This is not m3u playlist!"},
      {"extra characters after the header", "#EXTM3U8\n", {}, "This is not m3u playlist!"},
      {"a stream-info without BANDWIDTH stops at once, keeping what came before",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nhttp://o/a.m3u8\n"
       "#EXT-X-STREAM-INF:RESOLUTION=1x1\nhttp://o/b.m3u8\n",
       {{1, "http://o/a.m3u8"}},
       "Variant does not specify bandwidth!"},
      {"bandwidth in lower case is not BANDWIDTH",
       "#EXTM3U\n#EXT-X-STREAM-INF:bandwidth=5\nx\n",
       {},
       "Variant does not specify bandwidth!"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture::instance().clear();
    std::string previous = "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=9\nhttp://o/old.m3u8\n";
    ASSERT_TRUE(master.parse_playlist(&previous));
    std::string text = c.text;
    EXPECT_FALSE(master.parse_playlist(&text));
    expect_variants(c.kept);
    EXPECT_EQ(LogCapture::instance().lines(LogStream::err), std::vector<std::string>{c.error});
  }
}

}  // namespace
}  // namespace skerir
