// The upstream client's pure parts: URL splitting with cache-server substitution, reference
// resolution, the request bytes, and chunked framing.
#include "upstream/url.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "cachemap/cachemap.h"
#include "upstream/chunked.h"
#include "upstream/stream_url.h"
#include "upstream/ucurl.h"
#include "upstream/upstream_policy.h"

namespace skerir {
namespace {

TEST(UpstreamUrl, SplitsSchemeHostPortAndPathAndResolvesPlaceholders) {
  create_cache_maps();
  cache_map->setCacheMapString("10.0.0.1:8081");
  cache_map_playlist->setCacheMapString("cachehost");
  const struct {
    std::string url, host;
    int port;
    std::string path;
    int https, cache_kind;
  } cases[] = {
      {"http://h:8080", "h", 8080, "/", 0, 0},
      {"http://h/a:b?x=1", "h", 80, "/a:b?x=1", 0, 0},
      {"http://h:abc/x", "h", 0, "/x", 0, 0},
      {"http://@/seg/1.ts", "10.0.0.1", 8081, "/seg/1.ts", 0, 1},
      {"http://~/a/b.m3u8", "cachehost", 0, "/a/b.m3u8", 0, 2},  // no ":" in the server name
      {"http://@:81/seg", "@", 81, "/seg", 0, 0},                // a named port: no substitution
      {"https://h/x", "h", 443, "/x", 1, 0},
      {"https://h:8443", "h", 8443, "/", 1, 0},
      {"http://[::1]:8080/p", "::1", 8080, "/p", 0, 0},
      {"https://[2001:db8::1]/a:b", "2001:db8::1", 443, "/a:b", 1, 0},
  };
  for (const auto& c : cases) {
    UCurl u;
    u.parse_url(&c.url);
    EXPECT_EQ(u.host, c.host) << c.url;
    EXPECT_EQ(u.port, c.port) << c.url;
    EXPECT_EQ(u.path, c.path) << c.url;
    EXPECT_EQ(u.https, c.https) << c.url;
    EXPECT_EQ(u.cache_kind, c.cache_kind) << c.url;
  }
  const struct {
    std::string url, message;
  } bad[] = {
      {"ftp://h/x", "ftp"},
      {"h/x", "h/x"},
      {"", ""},
      {"http://@/x", "No cache server found"},
      {"http://~/x", "No playlist cache server found"},
      {"http://h/a b", "URL refused: a space at offset 10"},
      {"http://h/ HTTP/1.1\r\nHost: x", "URL refused: a space at offset 9"},
      {"http://h/\r\nX: y", "URL refused: control character 0x0D at offset 9"},
      {std::string("http://h/\0", 10), "URL refused: control character 0x00 at offset 9"},
      {"http://[::1/p", "IPv6 address without ']' in URL"},
  };
  cache_map->setCacheMapString("");
  cache_map_playlist->setCacheMapString("");
  for (const auto& c : bad) {
    UCurl u;
    try {
      u.parse_url(&c.url);
      ADD_FAILURE() << c.url;
    } catch (const UCurlException& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
  }
}

TEST(UpstreamUrl, RequestCarriesOnlyHostConnectionRangeAndExtraLines) {
  EXPECT_EQ(build_request("/a?b", "h", 80, false, 0),
            "GET /a?b HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(build_request("/s.ts", "h", 8080, true, 5000),
            "GET /s.ts HTTP/1.1\r\nHost: h:8080\r\nConnection: keep-alive\r\n"
            "Range: bytes=5000-\r\n\r\n");
  EXPECT_EQ(build_request("/p", "h", 443, false, 0, kDefaultHttpsPort, {{"X-A", "1"}, {"B", ""}}),
            "GET /p HTTP/1.1\r\nHost: h\r\nConnection: close\r\nX-A: 1\r\nB: \r\n\r\n");
  EXPECT_EQ(build_request("/p", "::1", 80, false, 0, kDefaultHttpsPort),
            "GET /p HTTP/1.1\r\nHost: [::1]:80\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(unsafe_header_reason("X-Tab_ok", "a\tb"), "");
  EXPECT_EQ(unsafe_header_reason("X: y\r\nZ", ""), "header refused: a name that is not a token");
}

// Examples of RFC 3986 section 5.4, normal and abnormal, against its base.
TEST(UpstreamUrl, ReferencesResolveAsRfc3986Examples) {
  const char* cases[][2] = {
      {"g:h", "g:h"},
      {"g", "http://a/b/c/g"},
      {"/g", "http://a/g"},
      {"//g", "http://g"},
      {"?y", "http://a/b/c/d;p?y"},
      {"", "http://a/b/c/d;p?q"},
      {"..", "http://a/b/"},
      {"../../../../g", "http://a/g"},
      {"/../g", "http://a/g"},
      {"./g/.", "http://a/b/c/g/"},
      {"g;x=1/../y", "http://a/b/c/y"},
      {"g?y/../x", "http://a/b/c/g?y/../x"},
      {"g#s/../x", "http://a/b/c/g#s/../x"},
      {"http:g", "http:g"},
      {"~x:1/../g", "http://a/b/c/g"},  // not a scheme: a path that holds a colon
  };

  for (const auto& [reference, target] : cases) {
    EXPECT_EQ(resolve_url("http://a/b/c/d;p?q", reference), target) << reference;
  }
  // A base with an authority and no path, and an absolute base that an IPv6 host must survive.
  EXPECT_EQ(resolve_url("https://h", "seg/1.ts"), "https://h/seg/1.ts");
  EXPECT_EQ(resolve_url("http://[::1]:81/a/m.m3u8?t=1", "v/p.m3u8"), "http://[::1]:81/a/v/p.m3u8");
}

// Each body is decoded in pieces of every size from one byte up: the framing state must carry
// across any cut.
TEST(UpstreamChunked, DecodesAcrossAnyCutAndFailsOnBadFraming) {
  const struct {
    std::string in, payload;
    bool done, failed;
  } cases[] = {
      {"5\r\nhello\r\n6;ext=\"a b\"\r\n world\r\n0\r\nTrailer: x\r\n\r\nignored", "hello world",
       true},
      {"A\n0123456789\n0\n\n", "0123456789", true},  // bare LF line ends
      {"0000000000000003 ; x\r\nabc\r\n0\r\n\r\n", "abc", true},
      {"3\r\nabc\r\n", "abc"},                // cut before the last chunk
      {"3\r\nabcd\r\n", "abc", false, true},  // the chunk is longer than its size says
      {"zz\r\nabc", "", false, true},
      {"\r\n", "", false, true},
      {"10000000000000000\r\n", "", false, true},  // over 64 bits
      {"3\r\nabc\r\n0\r\nX: 1\r\n\rZ", "abc", false, true},
      {"1;" + std::string(5000, 'x') + "\r\na", "", false, true},  // a size line without end
  };
  for (const auto& c : cases) {
    for (size_t piece = 1; piece <= c.in.size(); ++piece) {
      ChunkedDecoder decoder;
      std::string input = c.in, payload;
      for (size_t at = 0; at < input.size(); at += piece) {
        const size_t n = std::min(piece, input.size() - at);
        payload.append(input.data() + at, decoder.decode(input.data() + at, n));
      }
      ASSERT_EQ(payload, c.payload) << c.in << " in pieces of " << piece;
      ASSERT_EQ(decoder.done(), c.done) << c.in;
      ASSERT_EQ(decoder.failed(), c.failed) << c.in;
    }
  }
  ChunkedDecoder long_trailer;
  std::string trailer = "0\r\n" + std::string(70000, 'x');
  long_trailer.decode(trailer.data(), trailer.size());
  EXPECT_TRUE(long_trailer.failed());
}

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

TEST(UpstreamPolicy, AllowsOnlyWhatAnEntryMatches) {
  const UpstreamPolicy policy = UpstreamPolicy::parse(
      " origin.example.com , cdn.example.com:8080,192.0.2.7:80,172.16.0.0/12,[2001:db8::]/32,"
      "[2001:db8:1::5]:443");
  const struct {
    std::string host;
    int port;
    std::string address;  // where the connection would go
    bool allowed;
  } cases[] = {
      {"ORIGIN.Example.com", 1234, "203.0.113.1", true},  // by name, any port
      {"origin.example.com.evil", 80, "203.0.113.1", false},
      {"cdn.example.com", 8080, "203.0.113.2", true},
      {"192.0.2.7", 81, "192.0.2.7", false},     // not the port of its entry
      {"intranet", 80, "172.31.255.255", true},  // a name resolving into an allowed network
      {"intranet", 80, "172.32.0.0", false},
      {"x", 80, "::ffff:172.16.1.1", true},  // IPv4-mapped matches the IPv4 network
      {"x", 80, "2001:db8:ffff::1", true},
      {"x", 443, "2001:db8:1::5", true},
  };
  for (const auto& c : cases) {
    sockaddr_in6 in6{};
    sockaddr_in in{};
    const sockaddr* sa = reinterpret_cast<const sockaddr*>(&in);
    if (::inet_pton(AF_INET, c.address.c_str(), &in.sin_addr) == 1) {
      in.sin_family = AF_INET;
    } else {
      ASSERT_EQ(::inet_pton(AF_INET6, c.address.c_str(), &in6.sin6_addr), 1);
      in6.sin6_family = AF_INET6;
      sa = reinterpret_cast<const sockaddr*>(&in6);
    }
    EXPECT_EQ(policy.allowed(c.host, c.port, sa), c.allowed) << c.host << " at " << c.address;
  }
  EXPECT_TRUE(UpstreamPolicy().allowed("anything", 1, nullptr));
}

TEST(UpstreamPolicy, RejectsMalformedListsNamingTheEntry) {
  for (const char* bad :
       {"a,", "host:65536", "ho st", "10.0.0.0/33", "x/8", "[2001:db8::]/129", "[::1]x", "a:b:c"}) {
    EXPECT_THROW(UpstreamPolicy::parse(bad), UpstreamPolicyError) << bad;
  }
}

}  // namespace
}  // namespace skerir
