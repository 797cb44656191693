// The scripted origin's own promises that the client tests do not already exercise: ranges,
// throttling, per-connection stalls and scripts changed while serving.
#include "support/scripted_origin.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>

#include "support/test_server.h"

namespace skerir::test {
namespace {

using Clock = std::chrono::steady_clock;

std::string get_raw(const ScriptedOrigin& origin, const std::string& path,
                    const std::string& extra = "") {
  return exchange(origin.port(),
                  "GET " + path + " HTTP/1.1\r\nHost: x\r\n" + extra + "Connection: close\r\n\r\n");
}

TEST(ScriptedOriginReplies, RangesAreAnsweredFromTheBody) {
  ScriptedOrigin origin;
  origin.set("/r", Reply::ok("0123456789"));
  Reply fixed = Reply::ok("0123456789");
  fixed.honour_range = false;
  origin.set("/fixed", fixed);
  const struct {
    std::string path;
    std::string range;
    std::string reply;
  } cases[] = {
      {"/r", "bytes=2-4",
       "HTTP/1.1 206 Partial Content\r\nContent-Length: 3\r\nContent-Range: bytes 2-4/10\r\n"
       "Connection: close\r\n\r\n234"},
      {"/r", "bytes=7-",
       "HTTP/1.1 206 Partial Content\r\nContent-Length: 3\r\nContent-Range: bytes 7-9/10\r\n"
       "Connection: close\r\n\r\n789"},
      {"/r", "bytes=10-",
       "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Length: 0\r\nContent-Range: bytes */10\r\n"
       "Connection: close\r\n\r\n"},
      {"/fixed", "bytes=7-",
       "HTTP/1.1 200 OK\r\nContent-Length: 10\r\nConnection: close\r\n\r\n0123456789"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(get_raw(origin, c.path, "Range: " + c.range + "\r\n"), c.reply) << c.range;
  }
  const auto reqs = origin.requests("/r");
  ASSERT_EQ(reqs.size(), 3u);
  EXPECT_EQ(reqs[1].range, "bytes=7-");
  EXPECT_EQ(reqs[1].request_line, "GET /r HTTP/1.1");
  EXPECT_EQ(reqs[1].host, "x");
  EXPECT_EQ(reqs[1].connection_header, "close");
}

TEST(ScriptedOriginReplies, QueuedRepliesComeFirstAndScriptsChangeWhileServing) {
  ScriptedOrigin origin;
  origin.set("/live.m3u8", Reply::ok("v1"));
  origin.push_next("/live.m3u8", Reply::status_only(503), 2);
  EXPECT_EQ(get_raw(origin, "/live.m3u8").substr(0, 12), "HTTP/1.1 503");
  EXPECT_EQ(get_raw(origin, "/live.m3u8").substr(0, 12), "HTTP/1.1 503");
  EXPECT_NE(get_raw(origin, "/live.m3u8").find("\r\n\r\nv1"), std::string::npos);
  origin.set("/live.m3u8", Reply::ok("v2"));
  EXPECT_NE(get_raw(origin, "/live.m3u8").find("\r\n\r\nv2"), std::string::npos);
  EXPECT_EQ(get_raw(origin, "/nothing").substr(0, 12), "HTTP/1.1 404");
  origin.remove("/live.m3u8");
  EXPECT_EQ(get_raw(origin, "/live.m3u8").substr(0, 12), "HTTP/1.1 404");
  EXPECT_TRUE(origin.wait_for_requests("/live.m3u8", 5, std::chrono::seconds(1)));
}

TEST(ScriptedOriginFaults, ThrottledBodyTakesItsTime) {
  Reply slow = Reply::ok(std::string(100000, 'x'));
  slow.rate = 200000;  // half a second for the body
  ScriptedOrigin origin;
  origin.set("/slow", slow);
  const auto start = Clock::now();
  const std::string reply = get_raw(origin, "/slow");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(450));
  EXPECT_EQ(reply.size() - reply.find("\r\n\r\n") - 4, 100000u);
}

TEST(ScriptedOriginFaults, StalledConnectionDoesNotHoldUpOthers) {
  Reply stalled = Reply::ok("late");
  stalled.stall_before_headers = std::chrono::seconds(60);
  auto origin = std::make_unique<ScriptedOrigin>();
  origin->set("/stalled", stalled);
  origin->set("/quick", Reply::ok("now"));
  auto waiting = std::async(std::launch::async, [port = origin->port()] {
    return exchange(port, "GET /stalled HTTP/1.1\r\n\r\n", std::chrono::seconds(60));
  });
  ASSERT_TRUE(origin->wait_for_requests("/stalled", 1, std::chrono::seconds(20)));
  EXPECT_NE(get_raw(*origin, "/quick").find("\r\n\r\nnow"), std::string::npos);
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

  // Stopping the origin releases the stalled connection instead of waiting out its stall.
  origin.reset();
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(waiting.get(), "");
}

}  // namespace
}  // namespace skerir::test
