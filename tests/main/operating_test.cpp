// The real binary as an operator runs it: listening addresses, the map token, the stream list,
// and stopping on signals with streams running.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/presentation.h"
#include "support/process.h"
#include "support/test_server.h"

namespace skerir::test {
namespace {

using namespace std::chrono_literals;

// skerir on a free port of 127.0.0.1 with `options`; another program may take the port between
// the look and the bind, so it tries a few.
std::pair<std::unique_ptr<ChildProcess>, int> start(const std::vector<std::string>& options) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int port = free_port();
    std::vector<std::string> args = {"1000000", "--listen", "127.0.0.1:" + std::to_string(port)};
    args.insert(args.end(), options.begin(), options.end());
    auto child = std::make_unique<ChildProcess>(skerir_binary(), args);
    if (wait_listening(port) && child->wait_exit(0ms) == -1) return {std::move(child), port};
  }
  return {};
}

// Opens "/stream" for `master` and reads up to the 200 header; returns the socket.
int open_stream(int port, const std::string& master) {
  const int fd = connect_loopback(port);
  const std::string request = "GET /stream?url=" + url_encode(master) + " HTTP/1.0\r\n\r\n";
  ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string head;
  for (char c = 0; !head.ends_with("\r\n\r\n") && ::recv(fd, &c, 1, 0) == 1;) head += c;
  EXPECT_TRUE(head.starts_with("HTTP/1.0 200 Streaming...\r\n")) << head;
  return fd;
}

TEST(Operating, GuardsTheMapsListsStreamsAndEndsThemOnSigterm) {
  ChildProcess help(skerir_binary(), {"--help"});
  EXPECT_EQ(help.wait_exit(30s), 0);
  EXPECT_NE(help.out().find("\n  --listen ADDR:PORT"), std::string::npos) << help.out();

  ScriptedOrigin origin;
  const Presentation p{"slow", {500000}, 1, 1, 2 << 20};
  p.install(origin);
  origin.set(p.segment_path(0, 1),
             {.body = segment_bytes(0, 1, p.segment_size), .rate = 256 << 10});
  auto [s, port] = start({"--map-token", "s3cret"});
  ASSERT_TRUE(s);
  for (const char* query : {"chunk=a:1", "chunk=a:1&token=s3cre", "chunk=a:1&token=s3cret2"}) {
    EXPECT_TRUE(roundtrip(port, "GET /update-cache-map?" + std::string(query) + " HTTP/1.0\r\n\r\n")
                    .starts_with("HTTP/1.0 403 Forbidden\r\nContent-Type: plain/text\r\n"));
  }
  EXPECT_TRUE(roundtrip(port, "GET /update-cache-map?token=s3cret&chunk=b:2 HTTP/1.0\r\n\r\n")
                  .ends_with("\r\n\r\n\"OK\"\n"));
  EXPECT_TRUE(s->wait_for("setting map to: b:2", false));
  EXPECT_EQ(s->out().find("setting map to: a:1"), std::string::npos);

  const int client = open_stream(port, origin.url(p.master_path()) + "|User-Agent=x");
  char byte = 0;
  ASSERT_EQ(::recv(client, &byte, 1, 0), 1);  // the body has begun
  const std::string streams = roundtrip(port, "GET /streams.json HTTP/1.0\r\n\r\n");
  EXPECT_NE(streams.find("\r\n\r\n[\n{\"id\":1,\"client\":\"127.0.0.1:"), std::string::npos);
  EXPECT_NE(streams.find(",\"url\":\"" + origin.url(p.master_path()) + "|User-Agent=…\","),
            std::string::npos)
      << streams;
  ::kill(s->pid(), SIGTERM);
  EXPECT_EQ(s->wait_exit(30s), 0);
  std::string rest;
  EXPECT_TRUE(read_until_close(client, &rest, 5s));  // the client sees the body end
  ::close(client);
  EXPECT_TRUE(s->err().ends_with(
      "stopping on SIGTERM; streams running: 1\nmpl finish and cleanup!\nstopped\n"))
      << s->err();
}

TEST(Operating, StuckAndRefusedUpstreamsBoundTheStopAndASecondSignalEndsItAtOnce) {
  ScriptedOrigin origin;
  origin.set("/stuck.m3u8", {.body = "#EXTM3U\n", .stall_before_headers = 60s});
  for (const bool second : {false, true}) {
    auto [s, port] = start({"--upstream-allow", origin.authority()});
    ASSERT_TRUE(s);
    const int client = open_stream(port, origin.url("/stuck.m3u8"));
    ASSERT_TRUE(origin.wait_for_requests("/stuck.m3u8", second ? 2 : 1, 30s));
    // Outside the list: refused before connecting, and retried for longer than a stop waits.
    const int refused = open_stream(port, "http://127.0.0.1:1/x.m3u8");
    ASSERT_TRUE(s->wait_for("Excep: upstream not allowed: 127.0.0.1:1\n"));
    ::kill(s->pid(), SIGTERM);
    if (second && s->wait_for("stopping on SIGTERM")) ::kill(s->pid(), SIGINT);
    // Exiting at all shows the wait is bounded: the upstream would hold the stream a minute.
    EXPECT_EQ(s->wait_exit(30s), second ? 128 + SIGINT : 0);
    EXPECT_NE(s->err().find(second ? "stopping at once on a second SIGINT\n"
                                   : "stopped; connections still ending: 2\n"),
              std::string::npos)
        << s->err();
    ::close(client);
    ::close(refused);
  }
}

}  // namespace
}  // namespace skerir::test
