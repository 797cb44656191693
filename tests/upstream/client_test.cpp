// The upstream client against the scripted origin over real loopback sockets.
#include <gtest/gtest.h>

#include "buffer/cbuffer.h"
#include "cachemap/cachemap.h"
#include "support/presentation.h"
#include "support/scripted_origin.h"
#include "support/test_server.h"
#include "upstream/ucurl.h"

namespace skerir::test {
namespace {

using namespace std::chrono_literals;
const std::string kKey = "fedcba9876543210";

size_t logged(const std::string& line) { return LogCapture::instance().count(line, true); }

// A segment download into a fresh buffer; returns the count and leaves the bytes in `out`.
int64_t fetch(UCurl& u, const std::string& url, std::string* out, const std::string& key = "") {
  CBuffer buffer;
  double speed = 0;
  const int64_t n = u.get_stream(url, &buffer, false, speed, key, nullptr, 0);
  *out += drain(buffer);
  return n;
}

class UpstreamClient : public ::testing::Test {
 protected:
  void SetUp() override {
    create_cache_maps();
    cache_map->setCacheMapString("");
    LogCapture::instance().clear();
  }
  ScriptedOrigin origin;
};

TEST_F(UpstreamClient, GetJudgesStatusHeadersAndFraming) {
  const struct {
    Reply reply;
    bool ok;
    std::string body;
    size_t requests;   // how many reached the origin
    std::string line;  // logged at least once
  } cases[] = {
      {Reply::ok("playlist"), true, "playlist", 1},
      {{.status = 206}, true, "", 1},
      {{.raw = "HTTP/1.0 200 OK\r\n\r\nold"}, true, "old", 1},
      {{.raw = "HTTP/1.1 200 OK\r\nContent-Length:   4  \r\nX:\r\n\r\nbody"}, true, "body", 1},
      {{.raw = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort"}, true, "short", 1},
      {{.body = std::string(20000, 'c'), .chunked = true}, true, std::string(20000, 'c'), 1},
      {{.raw = "HTTP/1.1 200\r\ncontent-length: 4\r\n\r\nbody"}, true, "body", 1},
      {{.raw = "HTTP/1.1 200 OK\r\nBransfer-Encoding: chunked\r\n\r\nrest"}, true, "rest", 1},
      {{.raw = "HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: x, Chunked\r\n\r\n5\r\nhello\r\nzz\r\nworld"},
       true,
       "hello",
       1,
       "Malformed chunked body"},
      {{.raw = "HTTP/1.1 404 Not Found\r\n"}, false, "", 6, "get common failed - retry 6"},
      {{.raw = "HTTP/1.1\r\n"}, false, "", 6, "HTTP response first_line: HTTP/1.1"},
      {{.raw = "HTTP/1.1 200 OK\r\nX: 4\r\n"}, false, "", 1, "Excep: connection closed in headers"},
  };
  for (const auto& c : cases) {
    ScriptedOrigin o;
    o.set("/p", c.reply);
    std::string body = "stale";
    UCurl u;
    EXPECT_EQ(u.get(o.url("/p"), &body), c.ok) << c.line;
    EXPECT_EQ(body, c.ok ? c.body : body);
    EXPECT_EQ(o.requests("/p").size(), c.requests) << c.line;
    EXPECT_GE(logged(c.line), c.line.empty() ? 0u : 1u) << c.line;
    EXPECT_FALSE(u.sock.valid());
  }
}

// Over plain and TLS connections, on IPv4 and IPv6 alike.
TEST_F(UpstreamClient, SegmentsReuseTheConnectionAndRequestsAreExact) {
  for (const auto& [ipv6, tls] : {std::pair{false, Tls::none},
                                  {false, Tls::trusted},
                                  {true, Tls::none},
                                  {true, Tls::trusted}}) {
    LogCapture::instance().clear();
    ScriptedOrigin o(ipv6, tls);
    o.set("/a.ts", Reply::ok("AAAA"));
    o.set("/b.ts", {.body = "B", .close_after = 1});  // the origin closes after it
    UCurl u;
    std::string got;
    EXPECT_EQ(fetch(u, o.url("/a.ts"), &got), 4);
    EXPECT_EQ(fetch(u, o.url("/b.ts"), &got), 1);
    EXPECT_EQ(fetch(u, o.url("/a.ts"), &got), 4);  // the closed connection is replaced
    std::string text;
    u.extra_headers = {{"X-Trace", "t1"}};
    EXPECT_TRUE(u.get(o.url("/b.ts"), &text));  // on the kept connection, asking to close it
    EXPECT_EQ(got + text, "AAAABAAAAB");
    const auto reqs = o.requests();
    ASSERT_EQ(reqs.size(), 4u);
    EXPECT_EQ(reqs[0].connection + reqs[1].connection + reqs[2].connection + reqs[3].connection,
              2u);
    EXPECT_EQ(reqs[2].resumed, tls == Tls::trusted);  // the new connection resumed the session
    EXPECT_EQ(reqs[0].sni, "");                       // an address is no server name
    const std::string host = "Host: " + o.authority() + "\r\n";
    EXPECT_EQ(reqs[0].head, "GET /a.ts HTTP/1.1\r\n" + host + "Connection: keep-alive\r\n\r\n");
    EXPECT_EQ(reqs[3].head,
              "GET /b.ts HTTP/1.1\r\n" + host + "Connection: close\r\nX-Trace: t1\r\n\r\n");
    EXPECT_EQ(logged("reusing existing connection"), 3u);
    EXPECT_EQ(logged("Trying to reconnect when read response failed"), 1u);
    EXPECT_EQ(LogCapture::instance().count("TLS: "), 0u);
    EXPECT_FALSE(u.sock.valid());
  }
  ScriptedOrigin o(false, Tls::trusted);  // a name is sent, and checked against the certificate
  o.set("/n", Reply::ok("N"));
  std::string text;
  EXPECT_TRUE(UCurl().get("https://localhost:" + std::to_string(o.port()) + "/n", &text));
  EXPECT_EQ(o.requests().at(0).sni, "localhost");
}

// Relative and absolute, http to https and back; a loop ends after five hops like a refusal.
TEST_F(UpstreamClient, RedirectsAreFollowedAcrossSchemesUpToFiveHops) {
  ScriptedOrigin tls(false, Tls::trusted);
  origin.set("/a/start.m3u8", Reply::redirect(301, "../b/next.m3u8?x=1"));
  origin.set("/b/next.m3u8?x=1", Reply::redirect(302, tls.url("/c")));
  tls.set("/c", Reply::redirect(303, origin.url("/final.m3u8")));
  origin.set("/final.m3u8", Reply::ok("#EXTM3U"));
  UCurl u;
  std::string body;
  EXPECT_TRUE(u.get(origin.url("/a/start.m3u8"), &body));
  EXPECT_EQ(body, "#EXTM3U");
  EXPECT_EQ(u.effective_url, origin.url("/final.m3u8"));
  for (const std::string& to : {origin.url("/b/next.m3u8?x=1"), tls.url("/c"), u.effective_url})
    EXPECT_EQ(logged("redirect to: " + to), 1u) << to;

  origin.set("/loop", Reply::redirect(307, origin.url("/loop")));
  origin.set("/nowhere", Reply::with_status(302));
  EXPECT_FALSE(u.get(origin.url("/loop"), &body));
  EXPECT_EQ(origin.requests("/loop").size(), 6u * kGetCalls);
  EXPECT_EQ(logged("HTTP response first_line: HTTP/1.1 307 Status"), 6u);
  std::string response;
  EXPECT_FALSE(u.get_common(origin.url("/nowhere"), &response, false, 0));
  EXPECT_EQ(origin.requests("/nowhere").size(), 1u);
}

TEST_F(UpstreamClient, FailedAttemptsAreRetriedAndDeadCacheServersDropped) {
  // Port 1 refuses: four attempts, the last two after a one-second pause each.
  UCurl u;
  std::string response;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(u.get_common("http://127.0.0.1:1/x", &response, false, 0));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(logged("Trying to reconnect when connecting") +
                logged("Trying to reconnect when send data") +
                logged("Trying to reconnect when read response failed"),
            4u);
  // An unusable status line is retried the same way, on a new connection each time.
  for (const std::string raw : {"ICY 200 OK\r\n", "HTTP/1.1 200 OK"}) {
    ScriptedOrigin o;
    o.set("/p", {.raw = raw});
    std::string leftovers;
    EXPECT_FALSE(u.get_common(o.url("/p"), &leftovers, false, 0));
    EXPECT_EQ(o.requests().back().connection, 3u);  // the fourth connection
  }
  EXPECT_EQ(logged("Not HTTP/1.x?"), 4u);
  EXPECT_EQ(logged("Where is http state?"), 4u);
  // A URL or header that would smuggle a second request never leaves the client.
  EXPECT_FALSE(
      u.get_common(origin.url("/p HTTP/1.1\r\nHost: x\r\n\r\nGET /evil"), &response, false, 0));
  u.extra_headers = {{"X", "1\r\n\r\nGET /evil HTTP/1.1"}};
  EXPECT_FALSE(u.get_common(origin.url("/p"), &response, false, 0));
  u.extra_headers.clear();
  EXPECT_TRUE(origin.requests().empty());
  EXPECT_EQ(
      logged("Excep: URL refused: a space at offset " + std::to_string(origin.url("").size() + 2)),
      4u);
  EXPECT_EQ(logged("Excep: header refused: control character in the value of X"), 4u);
  // A dead cache server is invalidated before the third attempt; the next ring serves.
  origin.set("/ch/x/1.ts", Reply::ok("seg"));
  cache_map->setCacheMapString("127.0.0.1:1;" + origin.authority());
  std::string got;
  EXPECT_EQ(fetch(u, "http://@/ch/x/1.ts", &got), 3);
  EXPECT_EQ(got, "seg");
  EXPECT_GE(logged("Invalidating cache server 127.0.0.1:1"), 1u);
  // So is a cache server that takes the connection and never answers.
  ScriptedOrigin silent;
  silent.set("/ch/x/1.ts", {.body = "x", .stall_before_headers = 60s});
  cache_map->setCacheMapString(silent.authority() + ";" + origin.authority());
  got.clear();
  EXPECT_EQ(fetch(u, "http://@/ch/x/1.ts", &got), 3);
  EXPECT_GE(logged("Invalidating cache server " + silent.authority()), 1u);
}

TEST_F(UpstreamClient, BodiesDecryptAtEverySizeAndEndWhereTheOriginEndsThem) {
  for (const bool chunked : {false, true}) {
    for (size_t size : {0ul, 1ul, 15ul, 16ul, 17ul, 131071ul, 131077ul, 1300000ul}) {
      // Large bodies arrive in many reads.
      origin.set("/e.ts", {.body = pattern(0, size),
                           .encrypt_key = kKey,
                           .rate = size > 1000 ? size * 8 : 0,
                           .chunked = chunked});
      UCurl u;
      std::string got;
      EXPECT_EQ(fetch(u, origin.url("/e.ts"), &got, kKey), size / 16 * 16 + 16);
      EXPECT_TRUE(got == pattern(0, size)) << size << (chunked ? " chunked" : "");
      EXPECT_EQ(u.decrypt_ctx, nullptr);
    }
  }
  origin.set("/old.ts",
             {.raw = "HTTP/1.0 200 OK\r\n\r\nclear"});  // only length-delimited is decrypted
  UCurl u;
  std::string got;
  EXPECT_EQ(fetch(u, origin.url("/old.ts"), &got, kKey), 5);
  EXPECT_EQ(got, "clear");
  origin.set("/cut.ts", {.body = pattern(0, 100000), .close_after = 60000});  // ends early
  got.clear();
  EXPECT_EQ(fetch(u, origin.url("/cut.ts"), &got), 60000);
  EXPECT_TRUE(got == pattern(0, 60000));
}

// A segment cut by a receive time-out is resumed with a Range from stream_pos, continuing the
// cipher state exactly: the cut splits a cipher block. The resuming request goes straight to
// where the first one was redirected, and the redirect's body does not cost the connection.
TEST_F(UpstreamClient, StalledSegmentResumesWhereItWasCut) {
  for (const Tls tls : {Tls::none, Tls::trusted}) {
    for (const std::string key : {"", "fedcba9876543210"}) {
      ScriptedOrigin o(false, tls);
      const std::string plain = pattern(0, 1500000);
      o.set("/r.ts", Reply::redirect(307, "s.ts"));
      o.push_next("/s.ts",
                  {.body = plain, .encrypt_key = key, .stall_at = 700001, .stall_for = 60s});
      o.set("/s.ts", {.body = plain, .encrypt_key = key});
      const size_t served = key.empty() ? plain.size() : plain.size() / 16 * 16 + 16;
      UCurl u;
      std::string got;
      EXPECT_EQ(fetch(u, o.url("/r.ts"), &got, key), -1);
      EXPECT_EQ(u.stream_pos, 700001u);
      CBuffer buffer;  // the bytes of both calls go to one buffer, as the fill thread's do
      buffer.write(got.data(), got.size());
      double speed = 0;
      EXPECT_EQ(u.get_stream(o.url("/r.ts"), &buffer, false, speed, key, nullptr, 700001),
                static_cast<int64_t>(served - 700001));
      EXPECT_EQ(u.stream_pos, served);
      const auto reqs = o.requests();
      ASSERT_EQ(reqs.size(), 3u);
      EXPECT_EQ(reqs[1].connection, reqs[0].connection);
      EXPECT_EQ(reqs[2].target + " " + reqs[2].range, "/s.ts bytes=700001-");
      EXPECT_EQ(u.effective_url, o.url("/s.ts"));
      EXPECT_TRUE(drain(buffer) == plain) << "key: " << key;
    }
  }
  EXPECT_EQ(logged("Excep: recv timeout2"), 4u);
  EXPECT_EQ(logged("DEBUG: from bytes specified! 700001"), 4u);
}

}  // namespace
}  // namespace skerir::test
