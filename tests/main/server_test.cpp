// The front end over real sockets: exact reply bytes, the statistics and cache-map endpoints,
// and clients that misbehave.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>

#include "cachemap/cachemap.h"
#include "main/request.h"
#include "support/presentation.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::roundtrip;

std::string header_block(const std::string& status, const std::string& type) {
  return "HTTP/1.0 " + status + "\r\nContent-Type: " + type +
         "\r\nConnection: close\r\nAllow: GET, HEAD\r\nCache-Control: no-cache\r\n"
         "Access-Control-Allow-Origin: *\r\n\r\n";
}
const std::string kJsonOk = header_block("200 OK", "application/json");
const std::string kInvalid = header_block("406 Invalid Request", "plain/text");
const std::string kZeroStats =
    "{\"last_chunk_speed\": 0,\"avg_speed\": 0,\"cbuff_size\": 0,\"selected_profile\": 0}\n";

TEST(FrontEnd, RepliesAreExactForEveryRouteAndMalformedLine) {
  test::TestServer server;
  test::LogCapture::instance().clear();
  const struct {
    std::string request, reply;
  } cases[] = {
      {"HEAD /stats.json HTTP/1.1\r\n\r\n", kJsonOk},
      {"GET /stats.json HTTP/1.1\r\nHost: x\r\n\r\n", kJsonOk + kZeroStats},
      {"BREW /stats.json?x=%zz HTTP/1.1\r\n\r\n", kJsonOk + kZeroStats},
      {"GET /watchdog HTTP/1.1\r\n\r\n", kJsonOk},
      {"HEAD /stream%2Ets?url=x HTTP/1.1\r\n\r\n",
       header_block("200 Will try to stream...", "application/octet-stream")},
      {"GET /Stream HTTP/1.1\r\n\r\n", header_block("404 /Stream Not Found", "plain/text")},
      {"HEAD /a%20b%zz?x=1 HTTP/1.1\r\n\r\n",
       header_block(std::string("404 /a b") + '\0' + " Not Found", "plain/text")},
      {"get /watch\rdog HTTP/1.0\nX: y\n\n", kJsonOk},  // any method; CR dropped anywhere
      {"GET  /watchdog HTTP/1.1\r\n\r\n", header_block("404  Not Found", "plain/text")},
      {"garbage\r\n\r\n", kInvalid},
      {"", kInvalid},  // connects and closes at once
      {std::string(5000, 'A') + "\r\n\r\n", kInvalid},
      {"GET /" + std::string(4200, 'p') + " HTTP/1.1\r\n\r\n", kInvalid},  // version cut off
  };
  for (const auto& c : cases) EXPECT_EQ(roundtrip(server.port(), c.request), c.reply) << c.request;
  EXPECT_EQ(kJsonOk.size(), 145u);
  EXPECT_EQ(test::LogCapture::instance().count("not found", true), 3u);

  server.stats().last_chunk_speed = 18446744073709551615ull;
  server.stats().avg_speed = 2213;
  EXPECT_EQ(roundtrip(server.port(), "GET /stats.json HTTP/1.0\r\n\r\n"),
            kJsonOk +
                "{\"last_chunk_speed\": 18446744073709551615,\"avg_speed\": 2213,"
                "\"cbuff_size\": 0,\"selected_profile\": 0}\n");
}

TEST(FrontEnd, CacheMapUpdateReplacesOnlyTheMapsNamed) {
  test::TestServer server;
  const std::string ok = kJsonOk + "\"OK\"\n";
  EXPECT_EQ(
      roundtrip(server.port(), "GET /update-cache-map?chunk=a,b;c&playlist=p HTTP/1.1\r\n\r\n"),
      ok);
  EXPECT_EQ(cache_map->getServerFor("/x/y/z"), "a");  // "x/y" hashes to rank 0 of 2
  cache_map->invalidateServer("a");
  // HEAD updates too; an absent parameter leaves its map (and dead servers) alone.
  EXPECT_EQ(roundtrip(server.port(), "HEAD /update-cache-map?playlist=q,r HTTP/1.1\r\n\r\n"), ok);
  EXPECT_EQ(cache_map->getServerFor("/x/y/z"), "b");
  EXPECT_EQ(cache_map_playlist->getServerFor("/x/y/z"), "q");
  EXPECT_EQ(roundtrip(server.port(), "GET /update-cache-map HTTP/1.1\r\n\r\n"), ok);
  EXPECT_EQ(roundtrip(server.port(), "GET /update-cache-map?playlist= HTTP/1.1\r\n\r\n"), ok);
  EXPECT_EQ(cache_map_playlist->getServerFor("/x/y/z"), "");
  EXPECT_EQ(cache_map->getServerFor("/x/y/z"), "b");
}

TEST(FrontEnd, SilentAndHugeClientsHoldUpNobody) {
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  lim.rlim_cur = lim.rlim_max;
  setrlimit(RLIMIT_NOFILE, &lim);
  if (lim.rlim_cur < 1400) GTEST_SKIP() << "descriptor limit too low: " << lim.rlim_cur;
  test::TestServer server;
  // With the low thousand descriptors of this process taken, the server's sockets lie past
  // 1023, where select() would fail. A hundred clients stay silent; a megabyte without a line
  // feed is read as request line and headers, then refused.
  std::vector<int> held, idle;
  while (held.size() < 1024) held.push_back(::open("/dev/null", O_RDONLY));
  for (int i = 0; i < 100; ++i) idle.push_back(test::connect_loopback(server.port()));
  EXPECT_GT(idle.front(), 1023);
  std::thread huge([&] {
    EXPECT_EQ(roundtrip(server.port(), std::string(1 << 20, 'x') + "\r\n\r\n", 120s), kInvalid);
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(roundtrip(server.port(), "HEAD /stats.json HTTP/1.1\r\n\r\n", 10s), kJsonOk);
  }
  huge.join();
  for (int fd : idle) ::close(fd);
  for (int fd : held) ::close(fd);
}

TEST(FrontEnd, StreamWithoutAUsableUrlEndsItsStreamOnly) {
  test::TestServer server;
  test::LogCapture::instance().clear();
  const std::string streaming = header_block("200 Streaming...", "application/octet-stream");
  std::vector<std::thread> clients;  // each one retries as long as the upstream rules say
  for (const std::string query : {"", "?url=", "?url=ftp%3A%2F%2Fx%2Fm.m3u8", "?url=http",
                                  "?url=http%3A%2F%2F127.0.0.1%3A1%2Fm.m3u8&startFrom=zz"}) {
    clients.emplace_back([&, query] {
      EXPECT_EQ(roundtrip(server.port(), "GET /stream" + query + " HTTP/1.1\r\n\r\n", 120s),
                streaming)
          << query;
    });
  }
  for (auto& c : clients) c.join();
  EXPECT_EQ(test::LogCapture::instance().count("start_refreshing failed!", true), 5u);
  EXPECT_EQ(roundtrip(server.port(), "GET /stats.json HTTP/1.0\r\n\r\n"), kJsonOk + kZeroStats);
}

using ParamList = std::vector<std::pair<std::string, std::string>>;

TEST(RequestTarget, SplitsPathNamesAndValuesByTheScannerRules) {
  const struct {
    std::string target, resource;
    ParamList params;
  } cases[] = {
      {"/stats.json", "/stats.json", {}},
      {"/stream?url=%2Fa%2Fm.m3u8&startFrom=3",
       "/stream",
       {{"url", "/a/m.m3u8"}, {"startFrom", "3"}}},
      {"/x?a&b=1", "/x", {{"a&b", "1"}}},
      {"/x?flag", "/x", {{"flag", ""}}},
      {"/x?a=1=2", "/x", {{"a", "1=2"}}},
      {"/x?a=1&&b=2", "/x", {{"a", "1"}, {"&b", "2"}}},
      {"/x?a=1&a=2&", "/x", {{"a", "1"}, {"a", "2"}}},
      {"/x?u%72l=a+b%26c", "/x", {{"u%72l", "a b&c"}}},
      {"/stream%2Ets", "/stream.ts", {}},
      {"", "", {}},
  };
  for (const auto& c : cases) {
    Request r(-1, 0, nullptr, nullptr);
    r.parse_url(c.target);
    ParamList got;
    for (const Param& p : r.params) got.emplace_back(p.name, p.value);
    EXPECT_EQ(r.resource, c.resource) << c.target;
    EXPECT_EQ(got, c.params) << c.target;
  }
  Request r(-1, 0, nullptr, nullptr);
  r.parse_url("/stream?url=a&URL=c&url=b");
  EXPECT_EQ(*r.get_param("url"), "a");
  EXPECT_EQ(*r.get_param("URL"), "c");
  EXPECT_EQ(r.get_param("ur"), nullptr);
}

}  // namespace
}  // namespace skerir
