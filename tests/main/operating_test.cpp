// The real binary as an operator runs it: help, listening addresses, the map token, and
// stopping on a signal with streams running. Ports are free ones found at run time.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <regex>

#include "support/hls_fixture.h"
#include "support/process.h"
#include "support/scripted_origin.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::Reply;
using Clock = std::chrono::steady_clock;

// A free port on 127.0.0.1 (and on [::1] too when `v6`), or 0. Another program may take it
// before skerir binds it; start() then tries again.
int free_port(bool v6) {
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in6 in6{};
  in6.sin6_family = AF_INET6;
  in6.sin6_addr = in6addr_loopback;
  const int fd4 = ::socket(AF_INET, SOCK_STREAM, 0);
  const int fd6 = ::socket(AF_INET6, SOCK_STREAM, 0);
  socklen_t len = sizeof(in);
  int port = 0;
  if (::bind(fd4, reinterpret_cast<sockaddr*>(&in), len) == 0 &&
      ::getsockname(fd4, reinterpret_cast<sockaddr*>(&in), &len) == 0) {
    port = ntohs(in.sin_port);
    in6.sin6_port = in.sin_port;
    if (v6 && ::bind(fd6, reinterpret_cast<sockaddr*>(&in6), sizeof(in6)) != 0) port = 0;
  }
  ::close(fd4);
  ::close(fd6);
  return port;
}

bool has_ipv6_loopback() {
  for (int i = 0; i < 5; ++i) {
    if (free_port(true) != 0) return true;
  }
  return false;
}

struct Skerir {
  std::unique_ptr<ChildProcess> process;
  int port = 0;
};

Skerir start(std::vector<std::string> options, bool v6 = false) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int port = free_port(v6);
    if (port == 0) continue;
    std::vector<std::string> args = {"1000000", "--listen", "127.0.0.1:" + std::to_string(port)};
    if (v6) args.insert(args.end(), {"--listen", "[::1]:" + std::to_string(port)});
    args.insert(args.end(), options.begin(), options.end());
    auto p = std::make_unique<ChildProcess>(test::skerir_binary(), args);
    const auto deadline = Clock::now() + 30s;
    while (p->running() && Clock::now() < deadline) {
      if (test::wait_until_listening(port, 100ms)) return {std::move(p), port};
    }
  }
  ADD_FAILURE() << "skerir did not start on a free port";
  return {};
}

// Sends `request` over IPv6 loopback and reads the reply until the server closes.
std::string exchange_v6(int port, const std::string& request) {
  const int fd = ::socket(AF_INET6, SOCK_STREAM, 0);
  sockaddr_in6 sa{};
  sa.sin6_family = AF_INET6;
  sa.sin6_addr = in6addr_loopback;
  sa.sin6_port = htons(static_cast<uint16_t>(port));
  std::string reply;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
    test::read_until_close(fd, &reply, 30s);
  }
  ::close(fd);
  return reply;
}

// Opens "/stream" for `master` and reads the whole 200 header; returns the socket.
int open_stream(int port, const std::string& master) {
  const int fd = test::connect_loopback(port);
  const std::string request = "GET /stream?url=" + test::url_encode(master) + " HTTP/1.0\r\n\r\n";
  EXPECT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(request.size()));
  std::string head;
  char c = 0;
  while (!head.ends_with("\r\n\r\n") && ::recv(fd, &c, 1, 0) == 1) head += c;
  EXPECT_EQ(head.rfind("HTTP/1.0 200 Streaming...\r\n", 0), 0u) << head;
  return fd;
}

TEST(Operating, HelpAndVersionPrintAndABadOptionFailsWithOneLine) {
  ChildProcess help(test::skerir_binary(), {"--help"});
  EXPECT_EQ(help.wait_exit(30s), 0);
  EXPECT_NE(help.out().find("\n  --listen ADDR:PORT"), std::string::npos) << help.out();
  EXPECT_EQ(help.err(), "");
  ChildProcess version(test::skerir_binary(), {"--version"});
  EXPECT_EQ(version.wait_exit(30s), 0);
  EXPECT_TRUE(std::regex_match(version.out(), std::regex("skerir [0-9]+\\.[0-9]+\\.[0-9]+\n")))
      << version.out();
  ChildProcess bad(test::skerir_binary(), {"1000", "--listen", "localhost:80"});
  EXPECT_EQ(bad.wait_exit(30s), 2);
  EXPECT_EQ(bad.err().rfind("skerir: --listen 'localhost:80': ", 0), 0u) << bad.err();
  EXPECT_EQ(std::count(bad.err().begin(), bad.err().end(), '\n'), 1);
  EXPECT_EQ(bad.out(), "");
}

TEST(Operating, ServesEveryAddressGuardsTheMapsAndEndsStreamsOnSigterm) {
  const bool v6 = has_ipv6_loopback();
  test::ScriptedOrigin origin;
  const test::Presentation p{"slow", {500000}, 1, 2, 2 << 20};
  p.install(origin);
  for (uint64_t seq = 1; seq <= 2; ++seq) {
    Reply r = Reply::ok(test::segment_bytes(0, seq, p.segment_size));
    r.rate = 256 * 1024;  // a stream that lasts longer than the test
    origin.set(p.segment_path(0, seq), r);
  }
  Skerir s = start({"--map-token", "s3cret"}, v6);
  ASSERT_TRUE(s.process);
  if (v6) {
    EXPECT_NE(exchange_v6(s.port, "GET /stats.json HTTP/1.0\r\n\r\n").find("{\"last_chunk_speed\""),
              std::string::npos);
  }

  for (const char* query : {"chunk=a:1", "chunk=a:1&token=s3cre", "chunk=a:1&token=s3cret2"}) {
    const std::string reply =
        test::exchange(s.port, "GET /update-cache-map?" + std::string(query) + " HTTP/1.0\r\n\r\n");
    EXPECT_EQ(reply.rfind("HTTP/1.0 403 Forbidden\r\nContent-Type: plain/text\r\n", 0), 0u)
        << query;
  }
  EXPECT_NE(test::exchange(s.port, "GET /update-cache-map?token=s3cret&chunk=b:2 HTTP/1.0\r\n\r\n")
                .find("\r\n\r\n\"OK\"\n"),
            std::string::npos);
  EXPECT_TRUE(s.process->wait_for_output("setting map to: b:2", 30s));
  EXPECT_EQ(s.process->out().find("setting map to: a:1"), std::string::npos);

  const int client = open_stream(s.port, origin.url(p.master_path()));
  char byte = 0;
  ASSERT_EQ(::recv(client, &byte, 1, 0), 1);  // the stream is running
  const std::string streams = test::exchange(s.port, "GET /streams.json HTTP/1.0\r\n\r\n");
  EXPECT_NE(streams.find("\r\n\r\n[\n{\"id\":1,\"client\":\"127.0.0.1:"), std::string::npos);
  EXPECT_NE(streams.find(",\"url\":\"" + origin.url(p.master_path()) + "\""), std::string::npos);

  const auto t0 = Clock::now();
  ::kill(s.process->pid(), SIGTERM);
  EXPECT_EQ(s.process->wait_exit(30s), 0);
  EXPECT_LT(Clock::now() - t0, 3s);
  std::string rest;
  EXPECT_TRUE(test::read_until_close(client, &rest, 5s));  // the client sees the body end
  ::close(client);
  EXPECT_NE(s.process->err().find("stopping on SIGTERM: ending 1 streams\n"), std::string::npos);
  EXPECT_TRUE(s.process->err().ends_with("mpl finish and cleanup!\nstopped\n")) << s.process->err();
}

TEST(Operating, AStuckUpstreamBoundsTheStopAndASecondSignalEndsItAtOnce) {
  test::ScriptedOrigin origin;
  Reply stuck = Reply::ok("#EXTM3U\n");
  stuck.stall_before_headers = 60s;  // the stream's thread waits on upstream, not the client
  origin.set("/stuck.m3u8", stuck);
  for (const bool second : {false, true}) {
    Skerir s = start({});
    ASSERT_TRUE(s.process);
    const int client = open_stream(s.port, origin.url("/stuck.m3u8"));
    ASSERT_TRUE(origin.wait_for_requests("/stuck.m3u8", second ? 2 : 1, 30s));
    const auto t0 = Clock::now();
    ::kill(s.process->pid(), SIGTERM);
    if (second) {
      ASSERT_TRUE(s.process->wait_for_output("stopping on SIGTERM", 30s, true));
      ::kill(s.process->pid(), SIGINT);
    }
    EXPECT_EQ(s.process->wait_exit(30s), second ? 128 + SIGINT : 0);
    EXPECT_LT(Clock::now() - t0, 3s);
    EXPECT_NE(s.process->err().find(second ? "stopping at once on a second SIGINT\n"
                                           : "stopped with 1 connections still ending\n"),
              std::string::npos)
        << s.process->err();
    ::close(client);
  }
}

}  // namespace
}  // namespace skerir
