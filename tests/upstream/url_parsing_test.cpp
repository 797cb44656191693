#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "upstream/ucurl.h"
#include "upstream_fixture.h"

namespace skerir::test {
namespace {

using UrlParsing = UpstreamTest;

struct Parsed {
  int https;
  std::string host;
  int port;
  std::string path;
  int cache_kind;
};

void expect_parsed(const UCurl& u, const Parsed& want, const std::string& url) {
  EXPECT_EQ(u.https, want.https) << url;
  EXPECT_EQ(u.host, want.host) << url;
  EXPECT_EQ(u.port, want.port) << url;
  EXPECT_EQ(u.path, want.path) << url;
  EXPECT_EQ(u.cache_kind, want.cache_kind) << url;
}

TEST_F(UrlParsing, SplitsSchemeHostPortAndPath) {
  const struct {
    std::string url;
    Parsed want;
  } cases[] = {
      {"http://h:8080", {0, "h", 8080, "/", 0}},
      {"http://h", {0, "h", 80, "/", 0}},
      {"http://h/a:b", {0, "h", 80, "/a:b", 0}},
      {"http://h:8080/p/q.m3u8?x=1&y=2", {0, "h", 8080, "/p/q.m3u8?x=1&y=2", 0}},
      {"https://h/x", {1, "h", 80, "/x", 0}},  // fetched in plain HTTP on port 80
      {"https://h:8443", {1, "h", 8443, "/", 0}},
      {"http://10.1.2.3:81/seg.ts", {0, "10.1.2.3", 81, "/seg.ts", 0}},
      {"http://h:abc/x", {0, "h", 0, "/x", 0}},
      {"http://h:/x", {0, "h", 0, "/x", 0}},
      {"http://h:99999999999/x", {0, "h", 2147483647, "/x", 0}},
      {"http:///x", {0, "", 80, "/x", 0}},
      // A named port disables substitution even for the placeholder hosts.
      {"http://@:81/seg/1.ts", {0, "@", 81, "/seg/1.ts", 0}},
      {"http://~:82", {0, "~", 82, "/", 0}},
  };
  UCurl u;
  for (const auto& c : cases) {
    log().clear();
    u.parse_url(&c.url);
    expect_parsed(u, c.want, c.url);
    EXPECT_TRUE(out_has("parse URL: " + c.url));
  }
}

TEST_F(UrlParsing, PlaceholderHostsTakeTheirMapsServer) {
  const struct {
    std::string chunk_map;
    std::string playlist_map;
    std::string url;
    Parsed want;
    std::string cache_server;
  } cases[] = {
      {"10.0.0.1:8081",
       "",
       "http://@/seg/1.ts",
       {0, "10.0.0.1", 8081, "/seg/1.ts", 1},
       "10.0.0.1:8081"},
      {"10.0.0.1:8081", "", "http://@", {0, "10.0.0.1", 8081, "/", 1}, "10.0.0.1:8081"},
      {"",
       "10.0.0.2:8082",
       "https://~/live/index.m3u8",
       {1, "10.0.0.2", 8082, "/live/index.m3u8", 2},
       "10.0.0.2:8082"},
      // Without ":" the whole name is the host and also the port text.
      {"cachebox", "", "http://@/a/b", {0, "cachebox", 0, "/a/b", 1}, "cachebox"},
      {"8090", "", "http://@/a/b", {0, "8090", 8090, "/a/b", 1}, "8090"},
      // Only "@" and "~" exactly are placeholders.
      {"10.0.0.1:8081", "10.0.0.2:8082", "http://@@/x", {0, "@@", 80, "/x", 0}, ""},
  };
  for (const auto& c : cases) {
    cache_map->setCacheMapString(c.chunk_map);
    cache_map_playlist->setCacheMapString(c.playlist_map);
    UCurl u;
    u.parse_url(&c.url);
    expect_parsed(u, c.want, c.url);
    EXPECT_EQ(u.cache_server, c.cache_server) << c.url;
  }
}

TEST_F(UrlParsing, UnusableUrlsThrowWithTheirMessage) {
  const struct {
    std::string url;
    std::string message;
  } cases[] = {
      {"ftp://h/x", "ftp"},
      {"HTTP://h/x", "HTTP"},
      {"h/x.m3u8", "h/x.m3u8"},
      {"", ""},
      {"http://@/seg/1.ts", "No cache server found"},
      {"http://~/index.m3u8", "No playlist cache server found"},
  };
  for (const auto& c : cases) {
    UCurl u;
    try {
      u.parse_url(&c.url);
      ADD_FAILURE() << "no exception for " << c.url;
    } catch (const UCurlException& e) {
      EXPECT_EQ(std::string(e.what()), c.message) << c.url;
      EXPECT_EQ(u.cache_kind, 0) << c.url;
    }
  }
}

TEST_F(UrlParsing, BareSchemeIsShorterThanItsCut) {
  for (const std::string url : {"http", "https"}) {
    UCurl u;
    EXPECT_THROW(u.parse_url(&url), std::out_of_range) << url;
  }
  UCurl u;
  EXPECT_THROW(u.parse_url(nullptr), UCurlException);
}

TEST(RequestText, HasOnlyHostConnectionAndRange) {
  const struct {
    std::string path;
    std::string host;
    int port;
    bool keep_alive;
    unsigned long from_bytes;
    std::string text;
  } cases[] = {
      {"/a", "h", 80, false, 0, "GET /a HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n"},
      {"/p?x=1", "h", 8080, true, 0,
       "GET /p?x=1 HTTP/1.1\r\nHost: h:8080\r\nConnection: keep-alive\r\n\r\n"},
      {"/s.ts", "10.0.0.1", 8081, true, 5000,
       "GET /s.ts HTTP/1.1\r\nHost: 10.0.0.1:8081\r\nConnection: keep-alive\r\n"
       "Range: bytes=5000-\r\n\r\n"},
      {"/", "h", 0, false, 1,
       "GET / HTTP/1.1\r\nHost: h:0\r\nConnection: close\r\n"
       "Range: bytes=1-\r\n\r\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(build_request(c.path, c.host, c.port, c.keep_alive, c.from_bytes), c.text);
  }
}

}  // namespace
}  // namespace skerir::test
