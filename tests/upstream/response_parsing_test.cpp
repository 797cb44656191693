// Status line and header parsing, fed through a socket pair so the parser reads exactly the
// bytes a test writes.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "upstream/ucurl.h"
#include "upstream_fixture.h"

namespace skerir::test {
namespace {

// A UCurl whose connection is one end of a socket pair; the test plays the server on the
// other end.
class PairedClient {
 public:
  PairedClient() {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) ADD_FAILURE();
    client.sock.reset(sv[0]);
    server_.reset(sv[1]);
  }
  void send(const std::string& bytes) {
    ASSERT_EQ(::write(server_.get(), bytes.data(), bytes.size()),
              static_cast<ssize_t>(bytes.size()));
  }
  void close_server() { server_.reset(); }

  UCurl client;

 private:
  UniqueFd server_;
};

using ResponseParsing = UpstreamTest;

TEST_F(ResponseParsing, StatusLineIsJudged) {
  const struct {
    std::string bytes;
    int result;
    int http11;  // -1: not set
    LogStream stream;
    std::string line;  // "" when nothing is logged
    std::string left;  // the response string afterwards
  } cases[] = {
      {"HTTP/1.1 206 Partial Content\r\nA: b\r\n", 0, 1, LogStream::err, "", "A: b\r\n"},
      {"HTTP/1.0 200 OK\r\n", 0, 0, LogStream::err, "", ""},
      {"HTTP/1.1 204\r\n", 0, 1, LogStream::err, "", ""},
      {"HTTP/1.1 404 Not Found\r\n\r\n", -2, 1, LogStream::err,
       "HTTP response first_line: HTTP/1.1 404 Not Found", "\r\n"},
      {"HTTP/1.1 301 Moved\r\n", -2, 1, LogStream::err,
       "HTTP response first_line: HTTP/1.1 301 Moved", ""},
      {"HTTP/1.1\r\n", -2, 1, LogStream::err, "HTTP response first_line: HTTP/1.1", ""},
      {"HTTP/1.1  200 OK\r\n", -2, 1, LogStream::err, "HTTP response first_line: HTTP/1.1  200 OK",
       ""},
      {"ICY 200 OK\r\n", -1, -1, LogStream::err, "Not HTTP/1.x?", ""},
      {"http/1.1 200 OK\r\n", -1, -1, LogStream::err, "Not HTTP/1.x?", ""},
      {"HTTP/2 200\r\n", -1, -1, LogStream::err, "Not HTTP/1.x?", ""},
      {"\r\nHTTP/1.1 200 OK\r\n", -1, -1, LogStream::err, "Empty http state?",
       "HTTP/1.1 200 OK\r\n"},
      {"HTTP/1.1 200 OK", -1, -1, LogStream::out, "HTTP/1.1 200 OK len:15", "HTTP/1.1 200 OK"},
  };
  for (const auto& c : cases) {
    log().clear();
    PairedClient pair;
    pair.client.http11 = -1;
    pair.send(c.bytes);
    std::string response;
    EXPECT_EQ(pair.client.get_read_response_state(&response), c.result) << c.bytes;
    EXPECT_EQ(pair.client.http11, c.http11) << c.bytes;
    EXPECT_EQ(response, c.left) << c.bytes;
    if (!c.line.empty()) {
      EXPECT_TRUE(log().has_line(c.stream, c.line)) << c.bytes;
    }
    if (c.result == 0) {
      EXPECT_TRUE(log().lines().empty()) << c.bytes;
    }
  }
}

TEST_F(ResponseParsing, NoStatusLineWhenThePeerHasClosed) {
  PairedClient pair;
  pair.close_server();
  std::string response;
  EXPECT_EQ(pair.client.get_read_response_state(&response), -1);
  EXPECT_TRUE(out_has("socket is closed! no response!"));
}

TEST_F(ResponseParsing, StatusLineSplitOverTwoReadsIsNotWaitedFor) {
  PairedClient pair;
  pair.send("HTTP/1.1 20");
  std::string response;
  EXPECT_EQ(pair.client.get_read_response_state(&response), -1);
  EXPECT_TRUE(err_has("Where is http state?"));
}

TEST_F(ResponseParsing, HeadersAreNamedAsReceivedAndTrimmed) {
  using Headers = std::vector<std::pair<std::string, std::string>>;
  const struct {
    std::string bytes;
    Headers headers;
    std::string body;
  } cases[] = {
      {"Content-Length:   1234 \r\nContent-Range: bytes 5000-9999/10000\r\n\r\nBODY",
       {{"Content-Length", "1234"}, {"Content-Range", "bytes 5000-9999/10000"}},
       "BODY"},
      {"content-length: 5\r\n\r\n", {{"content-length", "5"}}, ""},
      {"No colon here\r\nA: 1\r\nA: 2\r\nX-Empty:\r\n\r\n",
       {{"A", "1"}, {"A", "2"}, {"X-Empty", ""}},
       ""},
      {"Location: http://h:81/x\r\n\r\n\r\n\r\n", {{"Location", "http://h:81/x"}}, "\r\n\r\n"},
      {" Spaced Name : v\r\n\r\nb", {{" Spaced Name ", "v"}}, "b"},
      // No header line at all: the blank line follows the status line at once.
      {"\r\nbody\r\n\r\nmore", {}, "body\r\n\r\nmore"},
      // A header block longer than one read.
      {"Big: " + std::string(9000, 'v') + "\r\nEnd: 1\r\n\r\nxyz",
       {{"Big", std::string(9000, 'v')}, {"End", "1"}},
       "xyz"},
  };
  for (const auto& c : cases) {
    PairedClient pair;
    pair.client.headers.push_back({"stale", "header"});
    pair.send(c.bytes);
    std::string response;
    ASSERT_TRUE(pair.client.get_read_response_headers(&response, &pair.client.headers));
    Headers got;
    for (const auto& h : pair.client.headers) got.emplace_back(h.name, h.value);
    EXPECT_EQ(got, c.headers) << c.bytes.substr(0, 60);
    EXPECT_EQ(response, c.body) << c.bytes.substr(0, 60);
  }
}

TEST_F(ResponseParsing, HeaderBlockCutByThePeerFailsTheRead) {
  PairedClient pair;
  pair.send("Content-Length: 5\r\n");
  pair.close_server();
  std::string response;
  try {
    pair.client.get_read_response_headers(&response, &pair.client.headers);
    ADD_FAILURE() << "no exception";
  } catch (const UCurlExceptionRecvError& e) {
    EXPECT_STREQ(e.what(), "connection closed in headers");
  }
  EXPECT_FALSE(pair.client.sock.valid());
}

TEST_F(ResponseParsing, SilentPeerTimesOutWithTheConnectionClosed) {
  PairedClient pair;
  try {
    pair.client.receive(kHeaderReadSize, 1);
    ADD_FAILURE() << "no exception";
  } catch (const UCurlExceptionRecvError& e) {
    EXPECT_STREQ(e.what(), "recv timeout1");
  }
  EXPECT_FALSE(pair.client.sock.valid());
}

TEST_F(ResponseParsing, ClosedPeerReadsAsEmptyWithoutException) {
  PairedClient pair;
  pair.send("tail");
  pair.close_server();
  EXPECT_EQ(pair.client.receive(kHeaderReadSize, 1), "tail");
  EXPECT_EQ(pair.client.receive(kHeaderReadSize, 1), "");
  char buf[16];
  EXPECT_EQ(pair.client.receive_stream(buf, sizeof(buf)), 0u);
}

TEST_F(ResponseParsing, DescriptorsAbove1023AreServed) {
  rlimit lim{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &lim), 0);
  constexpr rlim_t kHigh = 1500;
  if (lim.rlim_cur <= kHigh) {
    if (lim.rlim_max <= kHigh) GTEST_SKIP() << "descriptor limit too low";
    lim.rlim_cur = kHigh + 1;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lim), 0);
  }
  PairedClient pair;
  ASSERT_EQ(::dup2(pair.client.sock.get(), kHigh), static_cast<int>(kHigh));
  pair.client.sock.reset(kHigh);
  pair.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  std::string response;
  EXPECT_EQ(pair.client.get_read_response_state(&response), 0);
  EXPECT_TRUE(pair.client.get_read_response_headers(&response, &pair.client.headers));
  EXPECT_EQ(response, "ok");
}

}  // namespace
}  // namespace skerir::test
