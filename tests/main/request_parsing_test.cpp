#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "main/request.h"

namespace skerir {
namespace {

using ParamList = std::vector<std::pair<std::string, std::string>>;

ParamList params_of(const Request& r) {
  ParamList out;
  for (const Param& p : r.params) out.emplace_back(p.name, p.value);
  return out;
}

TEST(QueryScanner, SplitsPathNamesAndValuesByTheScannerRules) {
  const struct {
    std::string target;
    std::string resource;
    ParamList params;
  } cases[] = {
      {"/stats.json", "/stats.json", {}},
      {"/stream?url=%2Fa%2Fm.m3u8&startFrom=3",
       "/stream",
       {{"url", "/a/m.m3u8"}, {"startFrom", "3"}}},
      {"/x?a&b=1", "/x", {{"a&b", "1"}}},
      {"/x?flag", "/x", {{"flag", ""}}},
      {"/x?a=", "/x", {{"a", ""}}},
      {"/x?a=1=2", "/x", {{"a", "1=2"}}},
      {"/x?a=1&&b=2", "/x", {{"a", "1"}, {"&b", "2"}}},
      {"/x?a=1&a=2", "/x", {{"a", "1"}, {"a", "2"}}},
      {"/x?", "/x", {}},
      {"/x?a=1&", "/x", {{"a", "1"}}},
      {"/x?a=b?c", "/x", {{"a", "b?c"}}},
      {"/x?u%72l=a+b%26c", "/x", {{"u%72l", "a b&c"}}},
      {"/stream%2Ets", "/stream.ts", {}},
      {"", "", {}},
  };
  for (const auto& c : cases) {
    Request r(-1, 0, nullptr, nullptr);
    r.parse_url(c.target);
    EXPECT_EQ(r.resource, c.resource) << "target: " << c.target;
    EXPECT_EQ(params_of(r), c.params) << "target: " << c.target;
  }
}

TEST(QueryScanner, GetParamReturnsTheFirstExactMatch) {
  Request r(-1, 0, nullptr, nullptr);
  r.parse_url("/stream?url=a&URL=c&url=b&startFrom=-2");
  ASSERT_NE(r.get_param("url"), nullptr);
  EXPECT_EQ(*r.get_param("url"), "a");
  EXPECT_EQ(*r.get_param("URL"), "c");
  EXPECT_EQ(*r.get_param("startFrom"), "-2");
  EXPECT_EQ(r.get_param("missing"), nullptr);
  EXPECT_EQ(r.get_param("ur"), nullptr);
}

// A connected socket pair: the test writes to `peer`, the Request reads `request.socket`.
class SocketPairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    request_ = std::make_unique<Request>(sv[0], 0, nullptr, nullptr);
    peer_ = sv[1];
  }
  void TearDown() override {
    ::close(request_->socket);
    if (peer_ >= 0) ::close(peer_);
  }
  void send_bytes(const std::string& bytes) {
    size_t off = 0;
    while (off < bytes.size()) {
      const ssize_t n = ::write(peer_, bytes.data() + off, bytes.size() - off);
      ASSERT_GT(n, 0);
      off += static_cast<size_t>(n);
    }
  }
  void close_peer() {
    ::close(peer_);
    peer_ = -1;
  }

  std::unique_ptr<Request> request_;
  int peer_ = -1;
};

TEST_F(SocketPairTest, ReadlineEndsAtLineFeedAndDropsEveryCarriageReturn) {
  send_bytes("GET / HTTP/1.1\r\nbare\nin\rside\r\n\r\n");
  std::string line;
  EXPECT_EQ(request_->readline(&line, kRequestLineLimit), 16);  // 1 + bytes before the LF
  EXPECT_EQ(line, "GET / HTTP/1.1");
  request_->readline(&line, kRequestLineLimit);
  EXPECT_EQ(line, "bare");
  request_->readline(&line, kRequestLineLimit);
  EXPECT_EQ(line, "inside");
  request_->readline(&line, kRequestLineLimit);
  EXPECT_EQ(line, "");
}

TEST_F(SocketPairTest, ReadlineCutsLongLinesAfter4095BytesAndKeepsTheRest) {
  const std::string long_line = std::string(5000, 'a') + "\n";
  std::string nul_line("x\0y\n", 4);
  send_bytes(long_line + nul_line);
  std::string line;
  request_->readline(&line, kRequestLineLimit);
  EXPECT_EQ(line.size(), 4095u);
  request_->readline(&line, kRequestLineLimit);
  EXPECT_EQ(line.size(), 5000u - 4095u);
  request_->readline(&line, kRequestLineLimit);
  EXPECT_EQ(line, std::string("x\0y", 3));  // NUL bytes are ordinary bytes
}

TEST_F(SocketPairTest, ReadlineReturnsZeroOnlyWhenThePeerClosedBeforeAnyByte) {
  send_bytes("partial");
  close_peer();
  std::string line;
  EXPECT_EQ(request_->readline(&line, kRequestLineLimit), 8);
  EXPECT_EQ(line, "partial");
  EXPECT_EQ(request_->readline(&line, kRequestLineLimit), 0);
  EXPECT_EQ(line, "");
  EXPECT_EQ(request_->readline(&line, 1), 1);  // too small to read anything
}

TEST_F(SocketPairTest, ParseResourceReadsMethodVersionAndTarget) {
  const struct {
    std::string line;
    int method;
    int version;
    std::string resource;
  } cases[] = {
      {"GET /stats.json HTTP/1.0", 0, 1, "/stats.json"},
      {"HEAD /stream?url=%2Fa HTTP/1.1", 1, 0, "/stream"},
      {"POST /watchdog HTTP/1.1", 2, 0, "/watchdog"},
      {"get /x HTTP/1.1", 2, 0, "/x"},
      {"GET  /x HTTP/1.1", 0, 1, ""},  // two blanks: empty target, "/x" is the version
      {"GET /x HTTP/1.1 extra tokens", 0, 0, "/x"},
  };
  for (const auto& c : cases) {
    Request r(request_->socket, 0, nullptr, nullptr);
    send_bytes(c.line + "\r\n");
    ASSERT_NO_THROW(r.parse_resource()) << c.line;
    EXPECT_EQ(r.method, c.method) << c.line;
    EXPECT_EQ(r.version, c.version) << c.line;
    EXPECT_EQ(r.resource, c.resource) << c.line;
  }
}

TEST_F(SocketPairTest, ParseResourceRejectsLinesWithFewerThanThreeTokens) {
  for (const std::string line : {"garbage", "GET /x", "", "GET /x "}) {
    Request r(request_->socket, 0, nullptr, nullptr);
    send_bytes(line + "\n");
    try {
      r.parse_resource();
      ADD_FAILURE() << "accepted: \"" << line << "\"";
    } catch (const Http406& e) {
      EXPECT_STREQ(e.what(), "Invalid Request");
    }
  }
}

TEST_F(SocketPairTest, SkipHeadersConsumesExactlyTheHeaderBlock) {
  send_bytes("Host: x\r\nAccept: */*\r\n\r\nBODY\n");
  request_->skip_headers();
  std::string line;
  request_->readline(&line, kRequestLineLimit);
  EXPECT_EQ(line, "BODY");
}

}  // namespace
}  // namespace skerir
