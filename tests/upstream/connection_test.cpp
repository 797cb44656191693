// Connections and retries against the scripted origin over loopback.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/scripted_origin.h"
#include "upstream/ucurl.h"
#include "upstream_fixture.h"

namespace skerir::test {
namespace {

using Clock = std::chrono::steady_clock;
using UpstreamConnection = UpstreamTest;
using RequestRetry = UpstreamTest;

std::string port_text(int port) { return std::to_string(port); }

TEST_F(UpstreamConnection, FirstConnectLogsTheWholeSetUp) {
  ScriptedOrigin origin;
  origin.set("/a", Reply::ok("A"));
  UCurl u;
  std::string body;
  ASSERT_TRUE(u.get(origin.url("/a"), &body));
  EXPECT_EQ(body, "A");
  const std::string p = port_text(origin.port());
  const std::vector<std::string> want = {
      "parse URL: " + origin.url("/a"),
      "old address does not match",
      "old port does not match: -1->" + p,
      "Socket created",
      "EINPROGRESS in connect() - selecting",
      "old:  port: " + p,
      "new: 127.0.0.1 port: " + p,
      "Connected: 127.0.0.1",
      "disconnect: 127.0.0.1",
  };
  EXPECT_EQ(log().lines(LogStream::out), want);
  EXPECT_TRUE(log().lines(LogStream::err).empty());
}

TEST_F(UpstreamConnection, KeepAliveReusesTheSocketAndANewPortReconnects) {
  ScriptedOrigin first;
  ScriptedOrigin second;
  first.set("/a", Reply::ok("one"));
  first.set("/b", Reply::ok("two"));
  second.set("/c", Reply::ok("three"));
  CBuffer buffer;
  UCurl u;
  double speed = 0;
  ASSERT_EQ(u.get_stream(first.url("/a"), &buffer, false, speed, 0), 3);
  ASSERT_EQ(u.get_stream(first.url("/b"), &buffer, false, speed, 0), 3);
  EXPECT_EQ(log().count("reusing existing connection"), 1u);
  EXPECT_EQ(first.connections_accepted(), 1u);
  const auto reqs = first.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[0].connection, reqs[1].connection);

  log().clear();
  ASSERT_EQ(u.get_stream(second.url("/c"), &buffer, false, speed, 0), 5);
  EXPECT_TRUE(out_has("old port does not match: " + port_text(first.port()) + "->" +
                      port_text(second.port())));
  EXPECT_EQ(log().count("old address does not match"), 0u);
  EXPECT_EQ(log().count("reusing existing connection"), 0u);
  EXPECT_TRUE(out_has("disconnect: 127.0.0.1"));
  EXPECT_TRUE(first.wait_for_no_connections(kWait));  // the old connection was closed
  EXPECT_EQ(drain(buffer), "onetwothree");
}

TEST_F(UpstreamConnection, NamedHostIsResolvedAndDottedOneIsNot) {
  ScriptedOrigin origin;
  origin.set("/a", Reply::ok("x"));
  UCurl u;
  std::string body;
  ASSERT_TRUE(u.get(origin.url("/a"), &body));
  EXPECT_EQ(log().count_containing(" resolved to "), 0u);
  ASSERT_TRUE(u.get("http://localhost:" + port_text(origin.port()) + "/a", &body));
  EXPECT_TRUE(out_has("localhost resolved to 127.0.0.1"));
  EXPECT_TRUE(out_has("old address does not match"));
}

TEST_F(UpstreamConnection, KeepAliveConnectionClosedByTheOriginIsReplaced) {
  ScriptedOrigin origin;
  Reply closing = Reply::ok("first");
  closing.close = true;  // ends the connection silently, as an idle time-out would
  origin.push_next("/s", closing);
  origin.set("/s", Reply::ok("second"));
  CBuffer buffer;
  UCurl u;
  double speed = 0;
  ASSERT_EQ(u.get_stream(origin.url("/s"), &buffer, false, speed, 0), 5);
  ASSERT_EQ(u.get_stream(origin.url("/s"), &buffer, false, speed, 0), 6);
  EXPECT_TRUE(out_has("reusing existing connection"));
  EXPECT_TRUE(out_has("socket is closed! no response!"));
  EXPECT_TRUE(out_has("Trying to reconnect when read response failed"));
  EXPECT_EQ(origin.connections_accepted(), 2u);
  EXPECT_EQ(drain(buffer), "firstsecond");
}

TEST_F(UpstreamConnection, RequestsGoOutByteForByte) {
  ScriptedOrigin origin;
  origin.set("/p?x=1", Reply::ok("0123456789"));
  const std::string host = "Host: 127.0.0.1:" + port_text(origin.port()) + "\r\n";
  CBuffer buffer;
  {
    UCurl u;
    std::string body;
    ASSERT_TRUE(u.get(origin.url("/p?x=1"), &body));
    double speed = 0;
    ASSERT_EQ(u.get_stream(origin.url("/p?x=1"), &buffer, true, speed, 7), 3);
    EXPECT_FALSE(u.sock.valid());  // close_after
  }
  const auto reqs = origin.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[0].head, "GET /p?x=1 HTTP/1.1\r\n" + host + "Connection: close\r\n\r\n");
  EXPECT_EQ(reqs[1].head,
            "GET /p?x=1 HTTP/1.1\r\n" + host + "Connection: keep-alive\r\nRange: bytes=7-\r\n\r\n");
  EXPECT_TRUE(err_has("DEBUG: from bytes specified! 7"));
  EXPECT_EQ(drain(buffer), "789");
}

TEST_F(UpstreamConnection, ConnectThatNeverCompletesTimesOut) {
  UnansweredPort silent;
  UCurl u;
  const auto start = Clock::now();
  EXPECT_FALSE(u.do_connect("127.0.0.1", silent.port()));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_TRUE(err_has("ERR: connect timeout"));
  EXPECT_FALSE(u.sock.valid());
  EXPECT_EQ(u.connected_port, -1);  // a failure leaves the old connection fields alone
}

TEST_F(UpstreamConnection, NoSocketOutlivesItsClient) {
  ScriptedOrigin origin;
  origin.set("/s", Reply::ok("abc"));
  {
    CBuffer buffer;
    UCurl u;
    double speed = 0;
    ASSERT_EQ(u.get_stream(origin.url("/s"), &buffer, false, speed, 0), 3);
    EXPECT_TRUE(u.sock.valid());  // kept for the next segment
    EXPECT_EQ(origin.connections_open(), 1u);
  }
  EXPECT_TRUE(origin.wait_for_no_connections(kWait));
}

TEST_F(RequestRetry, RefusalEndsEachCallAfterOneRequest) {
  // The status line arrives on its own, so nothing of the refusal is left over for the next
  // call (see LeftoversOfARefusalPrecedeTheNextAnswer for when it is).
  const std::string status = "HTTP/1.1 404 Not Found\r\n";
  Reply refusal = Reply::raw_bytes(status + "Content-Length: 0\r\n\r\n");
  refusal.stall_at = status.size();
  refusal.stall_for = std::chrono::seconds(30);
  ScriptedOrigin origin;
  origin.set("/gone", refusal);
  UCurl u;
  std::string body;
  EXPECT_FALSE(u.get(origin.url("/gone"), &body));
  EXPECT_EQ(origin.request_count("/gone"), 6u);
  for (int n = 1; n <= 6; ++n) {
    EXPECT_TRUE(err_has("get common failed - retry " + std::to_string(n))) << n;
  }
  EXPECT_EQ(log().count_containing("get common failed - retry"), 6u);
  EXPECT_EQ(log().count("HTTP response first_line: HTTP/1.1 404 Not Found"), 6u);
  EXPECT_EQ(log().count("Trying to reconnect when http != 200"), 6u);
  EXPECT_FALSE(u.sock.valid());
}

TEST_F(RequestRetry, LeftoversOfARefusalPrecedeTheNextAnswer) {
  // One response string serves every call of get: what followed a refused status line is
  // read as the next status line, and only the third attempt reaches a real one.
  ScriptedOrigin origin;
  origin.set("/gone", Reply::status_only(404));
  UCurl u;
  std::string response;
  EXPECT_FALSE(u.get_common(origin.url("/gone"), &response, true, 0));
  EXPECT_EQ(origin.request_count("/gone"), 1u);
  EXPECT_EQ(response, "Content-Length: 0\r\n\r\n");

  log().clear();
  EXPECT_FALSE(u.get_common(origin.url("/gone"), &response, true, 0));
  EXPECT_EQ(origin.request_count("/gone"), 4u);
  const std::vector<std::string> errors = {"Not HTTP/1.x?", "Empty http state?",
                                           "HTTP response first_line: HTTP/1.1 404 Not Found"};
  EXPECT_EQ(log().lines(LogStream::err), errors);
}

TEST_F(RequestRetry, UnusableStatusLineIsRetriedOnANewConnection) {
  ScriptedOrigin origin;
  origin.push_next("/p", Reply::raw_bytes("ICY 200 OK\r\n"));
  origin.set("/p", Reply::ok("fine"));
  UCurl u;
  std::string body;
  ASSERT_TRUE(u.get(origin.url("/p"), &body));
  EXPECT_EQ(body, "fine");
  EXPECT_TRUE(err_has("Not HTTP/1.x?"));
  EXPECT_TRUE(out_has("Trying to reconnect when read response failed"));
  EXPECT_EQ(origin.request_count("/p"), 2u);
  EXPECT_EQ(origin.connections_accepted(), 2u);
  EXPECT_EQ(log().count_containing("get common failed"), 0u);
}

TEST_F(RequestRetry, RefusedPortSleepsBeforeTheLastTwoAttempts) {
  RefusingPort refusing;
  UCurl u;
  std::string response;
  const auto start = Clock::now();
  EXPECT_FALSE(
      u.get_common("http://127.0.0.1:" + port_text(refusing.port()) + "/x", &response, true, 0));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_EQ(log().count_containing("parse URL: "), 4u);
  EXPECT_FALSE(u.sock.valid());
}

TEST_F(RequestRetry, UrlErrorsCountAsFailedAttempts) {
  UCurl u;
  std::string response;
  EXPECT_FALSE(u.get_common("http", &response, false, 0));
  const auto errors = log().lines(LogStream::err);
  ASSERT_EQ(errors.size(), 4u);
  for (const auto& line : errors) EXPECT_EQ(line.rfind("Excep: basic_string::substr", 0), 0u);
}

TEST_F(RequestRetry, DeadCacheServerIsDroppedForTheNextRing) {
  ScriptedOrigin origin;
  origin.set("/seg/a/1.ts", Reply::ok("segment"));
  RefusingPort dead;
  const std::string dead_server = "127.0.0.1:" + port_text(dead.port());
  cache_map->setCacheMapString(dead_server + ";" + origin.authority());
  log().clear();
  UCurl u;
  std::string body;
  ASSERT_TRUE(u.get("http://@/seg/a/1.ts", &body));
  EXPECT_EQ(body, "segment");
  EXPECT_TRUE(out_has("Invalidating cache server " + dead_server));
  EXPECT_EQ(u.cache_server, origin.authority());
  EXPECT_EQ(origin.request_count("/seg/a/1.ts"), 1u);
}

}  // namespace
}  // namespace skerir::test
