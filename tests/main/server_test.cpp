#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/sanitizers.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::exchange;
using test::LogCapture;
using test::TestServer;

std::string header_block(const std::string& status, const std::string& type) {
  return "HTTP/1.0 " + status + "\r\nContent-Type: " + type +
         "\r\nConnection: close\r\nAllow: GET, HEAD\r\nCache-Control: no-cache\r\n"
         "Access-Control-Allow-Origin: *\r\n\r\n";
}

class FrontEnd : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = new TestServer(); }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  static int port() { return server_->port(); }
  static TestServer* server_;
};
TestServer* FrontEnd::server_ = nullptr;

TEST_F(FrontEnd, HeaderOnlyRepliesAreExact) {
  const std::string json_ok = header_block("200 OK", "application/json");
  EXPECT_EQ(json_ok.size(), 145u);
  const struct {
    std::string request;
    std::string reply;
  } cases[] = {
      {"HEAD /stats.json HTTP/1.1\r\n\r\n", json_ok},
      {"HEAD /watchdog HTTP/1.1\r\n\r\n", json_ok},
      {"GET /watchdog HTTP/1.1\r\n\r\n", json_ok},
      {"POST /watchdog HTTP/1.0\r\nContent-Length: 0\r\n\r\n", json_ok},
      {"HEAD /stream HTTP/1.1\r\n\r\n",
       header_block("200 Will try to stream...", "application/octet-stream")},
      {"HEAD /stream%2Ets?url=x HTTP/1.1\r\n\r\n",
       header_block("200 Will try to stream...", "application/octet-stream")},
      {"GET /abc HTTP/1.1\r\n\r\n", header_block("404 /abc Not Found", "plain/text")},
      {"GET /Stream HTTP/1.1\r\n\r\n", header_block("404 /Stream Not Found", "plain/text")},
      {"GET /stream/ HTTP/1.1\r\n\r\n", header_block("404 /stream/ Not Found", "plain/text")},
      {"HEAD /a%20b%zz?x=1 HTTP/1.1\r\n\r\n",
       header_block(std::string("404 /a b") + '\0' + " Not Found", "plain/text")},
      {"garbage\r\n\r\n", header_block("406 Invalid Request", "plain/text")},
      {"GET /x\r\n\r\n", header_block("406 Invalid Request", "plain/text")},
      {"", header_block("406 Invalid Request", "plain/text")},  // connects and closes at once
  };
  for (const auto& c : cases) {
    EXPECT_EQ(exchange(port(), c.request), c.reply) << "request: " << c.request;
  }
}

TEST_F(FrontEnd, StatisticsBodyStartsAtZeroForAnyMethod) {
  const std::string reply = header_block("200 OK", "application/json") +
                            "{\"last_chunk_speed\": 0,\"avg_speed\": 0,\"cbuff_size\": 0,"
                            "\"selected_profile\": 0}\n";
  EXPECT_EQ(exchange(port(), "GET /stats.json HTTP/1.1\r\nHost: x\r\n\r\n"), reply);
  EXPECT_EQ(exchange(port(), "POST /stats.json HTTP/1.1\r\n\r\n"), reply);
  EXPECT_EQ(exchange(port(), "BREW /stats.json?x=%zz HTTP/1.1\r\n\r\n"), reply);
}

TEST_F(FrontEnd, StatisticsPrintFullUnsignedValues) {
  TestServer own;
  own.stats().last_chunk_speed = 18446744073709551615ull;
  own.stats().avg_speed = 2213;
  own.stats().cbuff_size = 1536;
  own.stats().selected_profile = 1953;
  const std::string reply = exchange(own.port(), "GET /stats.json HTTP/1.0\r\n\r\n");
  EXPECT_EQ(reply.substr(145),
            "{\"last_chunk_speed\": 18446744073709551615,\"avg_speed\": 2213,"
            "\"cbuff_size\": 1536,\"selected_profile\": 1953}\n");
}

TEST_F(FrontEnd, UnknownPathIsLoggedOnStandardError) {
  LogCapture::instance().clear();
  exchange(port(), "GET /nowhere HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(LogCapture::instance().wait_for("not found", 10s));
  EXPECT_TRUE(LogCapture::instance().has_line(LogStream::err, "not found"));
}

TEST_F(FrontEnd, BadInputGetsItsReplyAndTheServerKeepsServing) {
  const std::string json_ok = header_block("200 OK", "application/json");
  const std::string invalid = header_block("406 Invalid Request", "plain/text");
  // 5,000 bytes without a blank: the first 4,095 form the request line, the rest a header.
  EXPECT_EQ(exchange(port(), std::string(5000, 'A') + "\r\n\r\n"), invalid);
  // A valid line that is cut at 4,095 bytes still routes on what it kept.
  // A valid line longer than that loses its version token to the cut.
  const std::string long_path = "/" + std::string(4200, 'p');
  EXPECT_EQ(exchange(port(), "GET " + long_path + " HTTP/1.1\r\n\r\n"), invalid);
  EXPECT_EQ(exchange(port(), std::string("GET /\0\0 HTTP/1.1\r\n\r\n", 21)),
            header_block(std::string("404 /\0\0 Not Found", 17), "plain/text"));
  EXPECT_EQ(exchange(port(), "GET /%%%4 HTTP/1.1\r\n\r\n"),
            header_block(std::string("404 /") + '\0' + "4 Not Found", "plain/text"));
  EXPECT_EQ(exchange(port(), "DELETE /watchdog HTTP/9.9\r\n\r\n"), json_ok);
  EXPECT_EQ(exchange(port(), "HEAD /stats.json HTTP/1.1\r\n\r\n"), json_ok);
}

TEST_F(FrontEnd, ServesPastThousandOpenConnections) {
  rlimit lim{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
  if (lim.rlim_cur < 4096 && lim.rlim_max >= 4096) {
    lim.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
  }
  if (lim.rlim_cur < 2400) GTEST_SKIP() << "descriptor limit too low: " << lim.rlim_cur;

  // Under sanitizers the accept loop is too slow for a backlog of 5 and connects back off for
  // seconds; there, spare descriptors push the server's sockets past 1023 instead.
  std::vector<int> spare;
  if (test::kSanitized) {
    for (int i = 0; i < 1050; ++i) spare.push_back(::dup(0));
  }
  const int connections = test::kSanitized ? 60 : 1100;
  std::vector<int> idle;
  for (int i = 0; i < connections; ++i) {
    const int fd = test::connect_loopback(port());
    ASSERT_GE(fd, 0) << "connection " << i;
    idle.push_back(fd);
  }
  EXPECT_GT(idle.back(), 1023);
  EXPECT_EQ(exchange(port(), "HEAD /stats.json HTTP/1.1\r\n\r\n"),
            header_block("200 OK", "application/json"));
  for (int fd : idle) ::close(fd);
  for (int fd : spare) ::close(fd);
}

}  // namespace
}  // namespace skerir
