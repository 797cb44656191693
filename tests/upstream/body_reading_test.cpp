// Body reading into strings and into the stream buffer, clear, over loopback.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "support/scripted_origin.h"
#include "upstream/ucurl.h"
#include "upstream_fixture.h"

namespace skerir::test {
namespace {

using BodyReading = UpstreamTest;

TEST_F(BodyReading, StringBodiesOfEveryFraming) {
  const std::string big = pattern(300000);
  Reply http10 = Reply::ok(big);
  http10.http10 = true;
  Reply no_headers_http10 = Reply::raw_bytes("HTTP/1.0 200 OK\r\n\r\nraw body");
  Reply empty = Reply::ok("");
  Reply with_extra = Reply::ok("#EXTM3U\n");
  with_extra.headers = {{"Content-Type", "application/vnd.apple.mpegurl"}};
  const struct {
    std::string name;
    Reply reply;
    std::string body;
  } cases[] = {
      {"length-delimited-several-reads", Reply::ok(big), big},
      {"close-delimited", http10, big},
      {"close-delimited-without-headers", no_headers_http10, "raw body"},
      {"empty", empty, ""},
      {"extra-headers", with_extra, "#EXTM3U\n"},
  };
  ScriptedOrigin origin;
  for (const auto& c : cases) {
    origin.set("/" + c.name, c.reply);
    UCurl u;
    std::string body = "stale";
    ASSERT_TRUE(u.get(origin.url("/" + c.name), &body)) << c.name;
    EXPECT_EQ(body.size(), c.body.size()) << c.name;
    EXPECT_TRUE(body == c.body) << c.name;
    EXPECT_FALSE(u.sock.valid()) << c.name;
  }
}

TEST_F(BodyReading, StreamedBodiesLandInTheBufferWhole) {
  // Larger than several 512 KiB blocks and not a multiple of the 131071-byte reads.
  const std::string big = pattern(3 * 524288 + 4321, 2);
  Reply http10 = Reply::ok(big);
  http10.http10 = true;
  ScriptedOrigin origin;
  origin.set("/clear.ts", Reply::ok(big));
  origin.set("/old.ts", http10);
  for (const std::string path : {"/clear.ts", "/old.ts"}) {
    CBuffer buffer;
    UCurl u;
    double speed = -1;
    EXPECT_EQ(u.get_stream(origin.url(path), &buffer, false, speed, 0),
              static_cast<int64_t>(big.size()))
        << path;
    EXPECT_GT(speed, 0) << path;
    EXPECT_TRUE(drain(buffer) == big) << path;
  }
}

TEST_F(BodyReading, ContentRangeSetsTheStreamPosition) {
  const std::string body = pattern(10000, 3);
  ScriptedOrigin origin;
  origin.set("/s.ts", Reply::ok(body));
  CBuffer buffer;
  UCurl u;
  double speed = 0;
  ASSERT_EQ(u.get_stream(origin.url("/s.ts"), &buffer, false, speed, 5000), 5000);
  EXPECT_EQ(u.stream_pos, 10000u);
  ASSERT_EQ(u.headers.size(), 2u);
  EXPECT_EQ(u.headers[1].name, "Content-Range");
  EXPECT_EQ(u.headers[1].value, "bytes 5000-9999/10000");
  EXPECT_TRUE(drain(buffer) == body.substr(5000));

  // Without Content-Range the position counts from 0.
  ASSERT_EQ(u.get_stream(origin.url("/s.ts"), &buffer, false, speed, 0), 10000);
  EXPECT_EQ(u.stream_pos, 10000u);
}

TEST_F(BodyReading, LengthMustBeNamedExactly) {
  Reply lower = Reply::ok("abc");
  lower.content_length = false;
  lower.headers = {{"content-length", "3"}};
  Reply none = Reply::ok("abc");
  none.content_length = false;
  ScriptedOrigin origin;
  origin.set("/lower", lower);
  origin.set("/none", none);
  for (const std::string path : {"/lower", "/none"}) {
    log().clear();
    UCurl u;
    std::string body;
    EXPECT_FALSE(u.get(origin.url(path), &body)) << path;
    EXPECT_TRUE(err_has("Content-Length unknown")) << path;
    CBuffer buffer;
    double speed = 0;
    EXPECT_EQ(u.get_stream(origin.url(path), &buffer, false, speed, 0), -1) << path;
  }
}

TEST_F(BodyReading, UnknownProtocolVersionIsRefused) {
  UCurl u;
  u.http11 = 2;
  std::string response = "x";
  std::string out;
  unsigned long received = 7;
  EXPECT_FALSE(u.get_read_body(&response, &out, nullptr, &received, "", nullptr, false));
  EXPECT_EQ(received, 0u);
  EXPECT_TRUE(err_has("Unsupported HTTP version"));
}

TEST_F(BodyReading, StopFlagEndsTheTransferEarly) {
  const std::string big = pattern(4 << 20, 4);
  ScriptedOrigin origin;
  origin.set("/s.ts", Reply::ok(big));
  CBuffer buffer;
  UCurl u;
  double speed = 0;
  const std::atomic<bool> stop{true};
  const int64_t got = u.get_stream(origin.url("/s.ts"), &buffer, false, speed, "", &stop, 0);
  EXPECT_GE(got, 0);
  EXPECT_LT(got, static_cast<int64_t>(big.size()));
  EXPECT_TRUE(out_has("forced stream break. should finish"));
  EXPECT_FALSE(u.sock.valid());
  EXPECT_TRUE(drain(buffer) == big.substr(0, static_cast<size_t>(got)));
}

TEST_F(BodyReading, EarlyCloseKeepsWhatArrived) {
  const std::string body = pattern(200000, 5);
  Reply cut = Reply::ok(body);
  cut.close_after = 150000;
  ScriptedOrigin origin;
  origin.set("/s.ts", cut);
  CBuffer buffer;
  UCurl u;
  double speed = 0;
  EXPECT_EQ(u.get_stream(origin.url("/s.ts"), &buffer, false, speed, 0), 150000);
  EXPECT_EQ(u.stream_pos, 150000u);
  EXPECT_TRUE(drain(buffer) == body.substr(0, 150000));
}

TEST_F(BodyReading, ReceiveTimeOutInAStringBodyFailsTheGet) {
  Reply stalled = Reply::ok(pattern(1000, 6));
  stalled.stall_at = 10;
  stalled.stall_for = std::chrono::seconds(30);
  ScriptedOrigin origin;
  origin.set("/p.m3u8", stalled);
  UCurl u;
  std::string body;
  EXPECT_FALSE(u.get(origin.url("/p.m3u8"), &body));
  EXPECT_TRUE(err_has("Excep: recv timeout1"));
  EXPECT_FALSE(u.sock.valid());
}

}  // namespace
}  // namespace skerir::test
