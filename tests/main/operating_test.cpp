// The real binary as an operator runs it: help, listening addresses, the map token, and
// stopping on a signal with streams running. Ports are free ones found at run time.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <unistd.h>

#include <memory>

#include "support/hls_fixture.h"
#include "support/process.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::Reply;
using Clock = std::chrono::steady_clock;

// "GET <path>" over [::1]; the reply up to the server's close, or "" without IPv6.
std::string get_over_ipv6(int port, const std::string& path) {
  sockaddr_in6 sa{};
  sa.sin6_family = AF_INET6;
  sa.sin6_port = htons(static_cast<uint16_t>(port));
  sa.sin6_addr = in6addr_loopback;
  const int fd = ::socket(AF_INET6, SOCK_STREAM, 0);
  const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
  std::string reply;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
    test::read_until_close(fd, &reply, 30s);
  }
  ::close(fd);
  return reply;
}

struct Skerir {
  std::unique_ptr<ChildProcess> process;
  int port = 0;
};

// skerir on a free port of 127.0.0.1 (and of [::1] with `v6`). Another program may take the
// port between the look and the bind; then it tries another.
Skerir start(const std::vector<std::string>& options, bool v6 = false) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int port = test::RefusingPort().port();
    std::vector<std::string> args = {"1000000", "--listen", "127.0.0.1:" + std::to_string(port)};
    if (v6) args.insert(args.end(), {"--listen", "[::1]:" + std::to_string(port)});
    args.insert(args.end(), options.begin(), options.end());
    auto child = std::make_unique<ChildProcess>(test::skerir_binary(), args);
    const auto deadline = Clock::now() + 30s;
    while (child->running() && Clock::now() < deadline) {
      if (test::wait_until_listening(port, 100ms)) return {std::move(child), port};
    }
  }
  return {};
}

// Opens "/stream" for `master` and reads the 200 header; returns the socket.
int open_stream(int port, const std::string& master) {
  const int fd = test::connect_loopback(port);
  const std::string request = "GET /stream?url=" + test::url_encode(master) + " HTTP/1.0\r\n\r\n";
  EXPECT_GT(::send(fd, request.data(), request.size(), MSG_NOSIGNAL), 0);
  std::string head;
  for (char c = 0; !head.ends_with("\r\n\r\n") && ::recv(fd, &c, 1, 0) == 1;) head += c;
  EXPECT_TRUE(head.starts_with("HTTP/1.0 200 Streaming...\r\n")) << head;
  return fd;
}

TEST(Operating, HelpPrintsAndABadOptionFailsWithOneLine) {
  ChildProcess help(test::skerir_binary(), {"--help"});
  EXPECT_EQ(help.wait_exit(30s), 0);
  EXPECT_NE(help.out().find("\n  --listen ADDR:PORT"), std::string::npos) << help.out();
  ChildProcess bad(test::skerir_binary(), {"1000", "--listen", "localhost:80"});
  EXPECT_EQ(bad.wait_exit(30s), 2);
  EXPECT_TRUE(bad.err().starts_with("skerir: --listen 'localhost:80': ")) << bad.err();
  EXPECT_EQ(std::count(bad.err().begin(), bad.err().end(), '\n'), 1);
}

TEST(Operating, ServesEveryAddressGuardsTheMapsAndEndsStreamsOnSigterm) {
  test::ScriptedOrigin origin;
  const test::Presentation p{"slow", {500000}, 1, 1, 2 << 20};
  p.install(origin);
  Reply slow = Reply::ok(test::segment_bytes(0, 1, p.segment_size));
  slow.rate = 256 * 1024;  // outlasts the test
  origin.set(p.segment_path(0, 1), slow);
  Skerir s = start({"--map-token", "s3cret"}, true);  // IPv6 beside IPv4 on one port
  const bool v6 = s.process != nullptr;
  if (!v6) s = start({"--map-token", "s3cret"});  // a machine without IPv6 loopback
  ASSERT_TRUE(s.process);
  const std::string zero = "\r\n\r\n{\"last_chunk_speed\": 0,";
  EXPECT_NE(test::exchange(s.port, "GET /stats.json HTTP/1.0\r\n\r\n").find(zero),
            std::string::npos);
  if (v6) {
    EXPECT_NE(get_over_ipv6(s.port, "/stats.json").find(zero), std::string::npos);
  }

  for (const char* query : {"chunk=a:1", "chunk=a:1&token=s3cre", "chunk=a:1&token=s3cret2"}) {
    EXPECT_TRUE(
        test::exchange(s.port, "GET /update-cache-map?" + std::string(query) + " HTTP/1.0\r\n\r\n")
            .starts_with("HTTP/1.0 403 Forbidden\r\nContent-Type: plain/text\r\n"));
  }
  EXPECT_TRUE(
      test::exchange(s.port, "GET /update-cache-map?token=s3cret&chunk=b:2 HTTP/1.0\r\n\r\n")
          .ends_with("\r\n\r\n\"OK\"\n"));
  EXPECT_TRUE(s.process->wait_for_output("setting map to: b:2", 30s));
  EXPECT_EQ(s.process->out().find("setting map to: a:1"), std::string::npos);

  const int client = open_stream(s.port, origin.url(p.master_path()));
  char byte = 0;
  ASSERT_EQ(::recv(client, &byte, 1, 0), 1);  // the body has begun
  const std::string streams = test::exchange(s.port, "GET /streams.json HTTP/1.0\r\n\r\n");
  EXPECT_NE(streams.find("\r\n\r\n[\n{\"id\":1,\"client\":\"127.0.0.1:"), std::string::npos);
  EXPECT_NE(streams.find(",\"url\":\"" + origin.url(p.master_path()) + "\","), std::string::npos);
  ::kill(s.process->pid(), SIGTERM);
  EXPECT_EQ(s.process->wait_exit(30s), 0);
  std::string rest;
  EXPECT_TRUE(test::read_until_close(client, &rest, 5s));  // the client sees the body end
  ::close(client);
  EXPECT_TRUE(s.process->err().ends_with(
      "stopping on SIGTERM; streams running: 1\nmpl finish and cleanup!\nstopped\n"))
      << s.process->err();
}

TEST(Operating, StuckAndRefusedUpstreamsBoundTheStopAndASecondSignalEndsItAtOnce) {
  test::ScriptedOrigin origin;
  Reply stuck = Reply::ok("#EXTM3U\n");
  stuck.stall_before_headers = 60s;  // the stream's thread waits on upstream, not on the client
  origin.set("/stuck.m3u8", stuck);
  for (const bool second : {false, true}) {
    Skerir s = start({"--upstream-allow", origin.authority()});
    ASSERT_TRUE(s.process) << "no free port";
    const int client = open_stream(s.port, origin.url("/stuck.m3u8"));
    ASSERT_TRUE(origin.wait_for_requests("/stuck.m3u8", second ? 2 : 1, 30s));
    // Outside the list: refused before connecting, and retried for longer than a stop waits.
    const int refused = open_stream(s.port, "http://127.0.0.1:1/x.m3u8");
    ASSERT_TRUE(
        s.process->wait_for_output("Excep: upstream not allowed: 127.0.0.1:1\n", 30s, true));
    ::kill(s.process->pid(), SIGTERM);
    if (second) {
      ASSERT_TRUE(s.process->wait_for_output("stopping on SIGTERM", 30s, true));
      ::kill(s.process->pid(), SIGINT);
    }
    // Exiting at all shows the wait is bounded: the upstream would hold the stream for a minute.
    EXPECT_EQ(s.process->wait_exit(30s), second ? 128 + SIGINT : 0);
    EXPECT_NE(s.process->err().find(second ? "stopping at once on a second SIGINT\n"
                                           : "stopped; connections still ending: 2\n"),
              std::string::npos)
        << s.process->err();
    ::close(client);
    ::close(refused);
  }
}

}  // namespace
}  // namespace skerir
