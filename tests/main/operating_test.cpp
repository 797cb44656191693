// The real binary as an operator runs it: its one argument and fixed port, listening addresses,
// the map token, the stream list, and stopping on signals with streams running.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "main/options.h"
#include "support/presentation.h"
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

TEST(Operating, StartsOnItsFixedPortAsItsOneArgumentSays) {
  ChildProcess none(skerir_binary(), {});
  EXPECT_EQ(none.wait_exit(30s), 2);
  EXPECT_EQ(none.err(), "Specify maximal buffer size\n");
  ChildProcess p(skerir_binary(), {"abc"});
  ASSERT_TRUE(wait_listening(7744)) << p.err();
  EXPECT_NE(
      roundtrip(7744, "GET /stats.json HTTP/1.1\r\n\r\n").find("\r\n\r\n{\"last_chunk_speed\": 0,"),
      std::string::npos);
  ChildProcess second(skerir_binary(), {"1000"});  // 7744 is taken by the first
  EXPECT_EQ(second.wait_exit(30s), 0);
  EXPECT_EQ(second.err(), "Couldn't bind listening socket.\n");
}

TEST(Operating, GuardsTheMapsListsStreamsAndEndsThemOnSigterm) {
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

TEST(Operating, StuckAndRefusedUpstreamsEndAtOnceOnSigterm) {
  ScriptedOrigin origin;
  origin.set("/stuck.m3u8", {.body = "#EXTM3U\n", .stall_before_headers = 60s});
  auto [s, port] = start({"--upstream-allow", origin.authority()});
  ASSERT_TRUE(s);
  const int client = open_stream(port, origin.url("/stuck.m3u8"));
  ASSERT_TRUE(origin.wait_for_requests("/stuck.m3u8", 1, 30s));
  // Outside the list: refused before connecting, and not retried.
  const int refused = open_stream(port, "http://127.0.0.1:1/x.m3u8");
  ASSERT_TRUE(s->wait_for("Excep: upstream not allowed: 127.0.0.1:1\n"));
  ::kill(s->pid(), SIGTERM);
  EXPECT_EQ(s->wait_exit(30s), 0);  // the stalled fetch would hold the stream for a minute
  EXPECT_TRUE(
      s->err().ends_with("stopping on SIGTERM; streams running: 1\nExcep: recv timeout1\n"
                         "start_refreshing failed!\nmpl finish and cleanup!\nstopped\n"))
      << s->err();
  EXPECT_EQ(s->err().find("get common failed"), std::string::npos);
  ::close(client);
  ::close(refused);
}

// One segment announcing 10^15 bytes at full speed, and a client that reads nothing: the
// download waits for the client once the buffer holds its limit and the allowance.
TEST(Operating, AnEndlessSegmentToAStalledClientKeepsMemoryBounded) {
  ScriptedOrigin origin;
  const Presentation p{"endless", {500000}, 1, 1, 64 * 1024};
  p.install(origin);
  origin.set(p.segment_path(0, 1),
             {.body = segment_bytes(0, 1, 64 * 1024), .length = 1000000000000000});
  auto [s, port] = start({});
  auto anonymous_mib = [&s] { return s->status("RssAnon:") / 1024.0; };
  const double before = anonymous_mib();
  const int client = open_stream(port, origin.url(p.master_path()));
  ASSERT_TRUE(origin.wait_for_requests(p.segment_path(0, 1), 1, 30s));
  double peak = before;
  for (int i = 0; i < 50; ++i, std::this_thread::sleep_for(100ms))
    peak = std::max(peak, anonymous_mib());
  std::printf("[memory] endless segment, stalled client: %.1f MiB, then %.1f at most\n", before,
              peak);
  EXPECT_LT(peak - before, 64);
  ::close(client);
}

using Action = Options::Action;

TEST(CommandLine, SizeFirstThenOptionsAndOneLineForEachMistake) {
  const struct {
    std::vector<std::string> args;
    Action action;
    std::string message;  // kFail: exact; kHelp, kVersion: a fragment
    unsigned long size = 0;
    size_t listeners = 0;
  } cases[] = {
      {{}, Action::kFail, "Specify maximal buffer size"},
      {{"16777216"}, Action::kServe, "", 16777216},
      {{"12kb"}, Action::kServe, "", 12},
      {{"-h"}, Action::kHelp, "--upstream-allow LIST"},
      {{"--version"}, Action::kVersion, "skerir "},
      {{"1", "--listen", "127.0.0.1:0", "--listen=[::1]:65535"}, Action::kServe, "", 1, 2},
      {{"1", "--map-token", "--help"}, Action::kServe, "", 1},  // a value, not an option
      {{"1", "--upstream-allow", "a", "--upstream-allow=b:1,10.0.0.0/8"}, Action::kServe, "", 1},
      {{"1", "--lisen", "x"}, Action::kFail, "unknown option '--lisen' (see skerir --help)"},
      {{"--listen", "0.0.0.0:1"},
       Action::kFail,
       "unexpected argument '0.0.0.0:1': options come after the buffer size (see skerir --help)"},
      {{"1", "--map-token="}, Action::kFail, "--map-token needs a non-empty value"},
      {{"1", "--upstream-allow", "a,,b"}, Action::kFail, "--upstream-allow: empty entry in 'a,,b'"},
  };
  for (const auto& c : cases) {
    const Options o = Options::parse(c.args);
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args.back());
    ASSERT_EQ(o.action, c.action) << o.message;
    if (c.action == Action::kFail) {
      EXPECT_EQ(o.message, (c.args.empty() ? "" : "skerir: ") + c.message);
    } else if (c.action != Action::kServe) {
      EXPECT_NE(o.message.find(c.message), std::string::npos) << o.message;
    } else {
      EXPECT_EQ(o.max_buffer_size, c.size);
      EXPECT_EQ(o.listen.size(), c.listeners);
    }
  }
  for (const char* bad :
       {"localhost:80", "::1:7744", "[::1]:", "1.2.3.4:65536", "1.2.3.4:80x", "[1.2.3.4]:80"}) {
    EXPECT_EQ(Options::parse({"1", "--listen", bad}).message,
              "skerir: --listen '" + std::string(bad) +
                  "': expected an IPv4 address or a bracketed IPv6 address, a colon and a port");
  }
}

}  // namespace
}  // namespace skerir::test
