#include "upstream/stream_url.h"

#include <gtest/gtest.h>

namespace skerir {
namespace {

TEST(StreamUrl, SplitsRequestHeadersOffAfterTheFirstBar) {
  const struct {
    std::string value, url;
    HeaderList headers;
    std::string error;
  } cases[] = {
      {"http://o/m.m3u8?a=1&b=2", "http://o/m.m3u8?a=1&b=2"},
      {"http://o/m|User-Agent=Foo%2F1.0+x&Referer=http%3A%2F%2Fa%2F|&X-Empty=",
       "http://o/m",
       {{"User-Agent", "Foo/1.0+x"}, {"Referer", "http://a/|"}, {"X-Empty", ""}}},
      {"u|host=evil&Connection=close&RANGE=bytes=0-&A=1", "u", {{"A", "1"}}},
      {"u|X-Bad=a%0D%0AInjected: 1", "u", {}, "unusable request header in the stream URL: X-Bad"},
      {"u|Bad Name=1", "u", {}, "unusable request header in the stream URL: Bad Name"},
      {"u|=1", "u", {}, "unusable request header in the stream URL: "},
  };
  for (const auto& c : cases) {
    const StreamUrl s = split_stream_url(c.value);
    EXPECT_EQ(s.url, c.url) << c.value;
    EXPECT_EQ(s.error, c.error) << c.value;
    if (c.error.empty()) {
      EXPECT_EQ(s.headers, c.headers) << c.value;
    }
  }
}

}  // namespace
}  // namespace skerir
