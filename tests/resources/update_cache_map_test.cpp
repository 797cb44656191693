#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cachemap/cachemap.h"
#include "support/cache_map_text.h"
#include "support/log_capture.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using test::describe;
using test::LogCapture;

const std::string kOkReply =
    "HTTP/1.0 200 OK\r\n"
    "Content-Type: application/json\r\n"
    "Connection: close\r\n"
    "Allow: GET, HEAD\r\n"
    "Cache-Control: no-cache\r\n"
    "Access-Control-Allow-Origin: *\r\n"
    "\r\n"
    "\"OK\"\n";

// The maps every case starts from; the playlist map has a dead server, so a reply that
// rebuilt it by mistake would show.
constexpr const char* kChunkBefore = R"(2: "seg1:80" "seg2:80")";
constexpr const char* kPlaylistBefore = R"(1: "pl1:80" "pl2:80"! | 1: "pl3:80")";

class UpdateCacheMapEndpoint : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    create_cache_maps();  // makes the maps the server created visible to this thread
    server_ = new test::TestServer();
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }

  static void reset_maps() {
    cache_map->setCacheMapString("seg1:80,seg2:80");
    cache_map_playlist->setCacheMapString("pl1:80,pl2:80;pl3:80");
    cache_map_playlist->invalidateServer("pl2:80");
    ASSERT_EQ(describe(*cache_map), kChunkBefore);
    ASSERT_EQ(describe(*cache_map_playlist), kPlaylistBefore);
  }

  static std::string request(const std::string& method, const std::string& target) {
    return test::exchange(server_->port(),
                          method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  }

  static test::TestServer* server_;
};

test::TestServer* UpdateCacheMapEndpoint::server_ = nullptr;

TEST_F(UpdateCacheMapEndpoint, ReplacesOnlyTheMapsNamedAndAlwaysAnswersOk) {
  const struct {
    std::string method;
    std::string target;
    std::string chunk;
    std::string playlist;
  } cases[] = {
      {"GET", "/update-cache-map?chunk=a,b;c", R"(2: "a" "b" | 1: "c")", kPlaylistBefore},
      {"GET", "/update-cache-map?playlist=p9:1", kChunkBefore, R"(1: "p9:1")"},
      {"GET", "/update-cache-map?chunk=c1&playlist=p1", R"(1: "c1")", R"(1: "p1")"},
      {"GET", "/update-cache-map?playlist=", kChunkBefore, ""},
      {"GET", "/update-cache-map?chunk", "", kPlaylistBefore},
      {"GET", "/update-cache-map", kChunkBefore, kPlaylistBefore},
      {"GET", "/update-cache-map?chunks=a&Playlist=b", kChunkBefore, kPlaylistBefore},
      {"GET", "/update-cache-map?chunk=first&chunk=second", R"(1: "first")", kPlaylistBefore},
      {"HEAD", "/update-cache-map?chunk=h1", R"(1: "h1")", kPlaylistBefore},
      {"POST", "/update-cache-map?playlist=p2", kChunkBefore, R"(1: "p2")"},
      // Decoded by the request parser before the map sees it.
      {"GET", "/update-cache-map?chunk=a%2Cb+c%3Bd", R"(2: "a" "b c" | 1: "d")", kPlaylistBefore},
      {"GET", "/update-cache-map?chunk=x%26y,z", R"(2: "x&y" "z")", kPlaylistBefore},
  };
  for (const auto& c : cases) {
    reset_maps();
    const std::string label = c.method + " " + c.target;
    EXPECT_EQ(request(c.method, c.target), kOkReply) << label;
    EXPECT_EQ(describe(*cache_map), c.chunk) << label;
    EXPECT_EQ(describe(*cache_map_playlist), c.playlist) << label;
  }
}

TEST_F(UpdateCacheMapEndpoint, AppliesTheSegmentMapBeforeThePlaylistMap) {
  reset_maps();
  LogCapture::instance().clear();
  ASSERT_EQ(request("GET", "/update-cache-map?playlist=P1&chunk=C1"), kOkReply);
  std::vector<std::string> settings;
  for (const std::string& line : LogCapture::instance().lines(LogStream::out)) {
    if (line.starts_with("setting map to: ")) settings.push_back(line);
  }
  EXPECT_EQ(settings, (std::vector<std::string>{"setting map to: C1", "setting map to: P1"}));
}

TEST_F(UpdateCacheMapEndpoint, LookupsUseTheNewMapAtOnce) {
  reset_maps();
  ASSERT_EQ(request("GET", "/update-cache-map?chunk=only:8080"), kOkReply);
  EXPECT_EQ(cache_map->getServerFor("/abc/def/seg.ts"), "only:8080");
  ASSERT_EQ(request("GET", "/update-cache-map?chunk="), kOkReply);
  EXPECT_EQ(cache_map->getServerFor("/abc/def/seg.ts"), "");
}

}  // namespace
}  // namespace skerir
