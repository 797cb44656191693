#include "cachemap/cachemap.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/test_server.h"

namespace skerir {
namespace {

using Lines = std::vector<std::string>;
using test::LogCapture;

// «2: "a" "b"! | 0:»: a ring holding a live "a" and a dead "b" with the alive count the map
// keeps for it, then an empty ring.
std::string describe(const CacheMap& map) {
  std::string out;
  for (const CacheServerRing& ring : map.snapshot()) {
    out += (out.empty() ? "" : " | ") + std::to_string(ring.alive_count) + ":";
    for (const CacheServer& s : ring.servers) out += " \"" + s.name + "\"" + (s.alive ? "" : "!");
  }
  return out;
}

// A request path whose key lands on live rank `index` in a ring of `alive` live servers.
std::string path_with_index(uint32_t index, uint32_t alive) {
  for (int i = 0;; ++i) {
    const std::string key = "ch" + std::to_string(i) + "/hd";
    if (CacheMap::hashFor(key) % alive == index) return "/" + key + "/seg.ts";
  }
}

TEST(CacheMap, KeyIsTwoComponentsAfterTheLivePrefixOrTheRoot) {
  const struct {
    std::string url, key;
  } cases[] = {
      {"/_live/abc/def/seg.ts", "abc/def"},
      {"/abc/def/other.ts", "abc/def"},
      {"/abc/def?token=1", "abc/def"},
      {"/abc?x=/y/z", "abc"},
      {"/x/_live/abc/def/g", "x/_live"},
      {"//abc", "/abc"},
      {"/abc", "abc"},
      {"/_live/abc?k=v", "abc"},
      {"/_live/", ""},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(CacheMap::keyFor(c.url), c.key) << c.url;
}

TEST(CacheMap, ParsesRingsAsWrittenAndInvalidatesExactNamesOnce) {
  const struct {
    std::string text;
    Lines invalidate;
    std::string rings;
  } cases[] = {
      {"c1,c2;c3", {}, R"(2: "c1" "c2" | 1: "c3")"},
      {"a,b;", {}, R"(2: "a" "b")"},
      {";a", {}, R"(0: | 1: "a")"},
      {"a, b", {}, R"(2: "a" " b")"},
      {"a,,b", {}, R"(3: "a" "" "b")"},
      {"", {"a"}, ""},
      {"a,b;b,c", {"b"}, R"(1: "a" "b"! | 1: "b"! "c")"},
      {"a,b,c", {"b", "b"}, R"(2: "a" "b"! "c")"},
      {"a,a", {"a"}, R"(0: "a"! "a"!)"},
      {"a,b", {"A", "a ", "x", ""}, R"(2: "a" "b")"},
      {"h:1,h:2", {"h"}, R"(2: "h:1" "h:2")"},
  };
  for (const auto& c : cases) {
    CacheMap map;
    map.setCacheMapString(c.text);
    for (const auto& name : c.invalidate) map.invalidateServer(name);
    EXPECT_EQ(describe(map), c.rings) << c.text;
  }
  CacheMap map;
  LogCapture::instance().clear();
  map.setCacheMapString("c1,c2;c3");
  map.invalidateServer("c2");
  EXPECT_EQ(LogCapture::instance().lines(LogStream::out),
            (Lines{"setting map to: c1,c2;c3", "ring: alive servers: 2", "  server: c1 alive",
                   "  server: c2 alive", "ring: alive servers: 1", "  server: c3 alive",
                   "Invalidating cache server c2", "ring: alive servers: 1", "  server: c1 alive",
                   "  server: c2 DEAD", "ring: alive servers: 1", "  server: c3 alive"}));
}

TEST(CacheMap, LookupWalksTheLiveServersOfTheFirstLiveRing) {
  CacheMap map;
  map.setCacheMapString("10.0.0.1:81,10.0.0.2:82,10.0.0.3:83");
  LogCapture::instance().clear();
  EXPECT_EQ(map.getServerFor("/abc/def/seg1.ts"), "10.0.0.2:82");  // 8407 % 3 == 1
  EXPECT_EQ(LogCapture::instance().lines(LogStream::out),
            Lines{"for url /abc/def/seg1.ts key abc/def selected server: 10.0.0.2:82"});

  map.setCacheMapString("s0,s1,s2,s3,s4");
  for (uint32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(map.getServerFor(path_with_index(i, 5)), "s" + std::to_string(i));
  }
  map.setCacheMapString(";a,b,c;d");  // an empty ring is skipped
  map.invalidateServer("b");
  EXPECT_EQ(map.getServerFor(path_with_index(0, 2)), "a");
  EXPECT_EQ(map.getServerFor(path_with_index(1, 2)), "c");
  map.invalidateServer("a");
  map.invalidateServer("c");
  EXPECT_EQ(map.getServerFor(path_with_index(1, 2)), "d");
  map.invalidateServer("d");
  LogCapture::instance().clear();
  EXPECT_EQ(map.getServerFor("/abc/def/1.ts"), "");
  EXPECT_EQ(LogCapture::instance().lines(LogStream::err), Lines{"no valid ring found"});
  map.setCacheMapString(";a,b,c;d");  // a new map revives every server
  EXPECT_EQ(map.getServerFor(path_with_index(1, 3)), "b");
  EXPECT_EQ(CacheMap().getServerFor("/a/b"), "");
}

}  // namespace
}  // namespace skerir
