#include "cachemap/cachemap.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/cache_map_text.h"
#include "support/log_capture.h"

namespace skerir {
namespace {

using test::describe;
using test::LogCapture;
using Lines = std::vector<std::string>;

// A request path whose key lands on live rank `index` in a ring of `alive` live servers.
std::string path_with_index(uint32_t index, uint32_t alive) {
  for (int i = 0; i < 100000; ++i) {
    const std::string key = "ch" + std::to_string(i) + "/hd";
    if (CacheMap::hashFor(key) % alive == index) return "/" + key + "/seg.ts";
  }
  ADD_FAILURE() << "no key with index " << index << " of " << alive;
  return "";
}

// Points standard output at /dev/null while it lives, for load that logs thousands of lines.
// Standard error is left alone so sanitizer reports still show.
class QuietStdout {
 public:
  QuietStdout() {
    std::fflush(stdout);
    saved_ = ::dup(STDOUT_FILENO);
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) {
      ::dup2(null, STDOUT_FILENO);
      ::close(null);
    }
  }
  ~QuietStdout() {
    if (saved_ >= 0) {
      ::dup2(saved_, STDOUT_FILENO);
      ::close(saved_);
    }
  }
  QuietStdout(const QuietStdout&) = delete;
  QuietStdout& operator=(const QuietStdout&) = delete;

 private:
  int saved_ = -1;
};

// Standard-output lines logged while `op` ran.
template <class Op>
Lines stdout_of(Op op) {
  LogCapture::instance().clear();
  op();
  return LogCapture::instance().lines(LogStream::out);
}

TEST(CacheMapKey, TakesTwoComponentsAfterTheLivePrefixOrTheRoot) {
  const struct {
    std::string url;
    std::string key;
  } cases[] = {
      {"/_live/abc/def/seg.ts", "abc/def"},
      {"/abc/def/other.ts", "abc/def"},
      {"/a/b/c/d/e.ts", "a/b"},
      {"/abc/def?token=1", "abc/def"},
      {"/abc/def/x.m3u8?token=1", "abc/def"},
      {"/abc?x=/y/z", "abc"},  // the cut at "?" comes after the slash search
      {"/_live/abc/def?q=1/x", "abc/def"},
      {"/x/_live/abc/def/g", "x/_live"},  // the prefix counts only at the start
      {"/_livex/a/b/c", "_livex/a"},
      {"//abc", "/abc"},
  };
  for (const auto& c : cases) EXPECT_EQ(CacheMap::keyFor(c.url), c.key) << "url: " << c.url;
}

TEST(CacheMapKey, RunsToTheEndWhereASlashIsMissing) {
  const struct {
    std::string url;
    std::string key;
  } cases[] = {
      {"/abc", "abc"},
      {"/abc/def", "abc/def"},
      {"/abc?x=1", "abc"},
      {"/_live/abc", "abc"},
      {"/_live/abc/def", "abc/def"},
      {"/_live/abc?k=v", "abc"},
      {"/_live/", ""},
      {"/", ""},
      {"", ""},
      {"abc", "bc"},  // not a path; the first character is skipped as if it were the root
  };
  for (const auto& c : cases) EXPECT_EQ(CacheMap::keyFor(c.url), c.key) << "url: " << c.url;
}

TEST(CacheMapLookup, WorkedExamplePicksTheSecondOfThreeServers) {
  EXPECT_EQ(CacheMap::hashFor("abc/def"), 8407u);
  EXPECT_EQ(CacheMap::hashFor(""), 0u);

  CacheMap map;
  map.setCacheMapString("10.0.0.1:81,10.0.0.2:82,10.0.0.3:83");
  const Lines out =
      stdout_of([&] { EXPECT_EQ(map.getServerFor("/abc/def/seg1.ts"), "10.0.0.2:82"); });
  EXPECT_EQ(out, Lines{"for url /abc/def/seg1.ts key abc/def selected server: 10.0.0.2:82"});
  // The same key, hence the same server, with and without the live prefix.
  EXPECT_EQ(map.getServerFor("/_live/abc/def/seg.ts"), "10.0.0.2:82");
  EXPECT_EQ(map.getServerFor("/abc/def/index.m3u8?x=1"), "10.0.0.2:82");
}

TEST(CacheMapLookup, EveryRankReachesItsServer) {
  CacheMap map;
  map.setCacheMapString("s0,s1,s2,s3,s4");
  const Lines names{"s0", "s1", "s2", "s3", "s4"};
  for (uint32_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(map.getServerFor(path_with_index(i, 5)), names[i]) << "index " << i;
  }
  map.setCacheMapString("only");
  for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(map.getServerFor(path_with_index(i, 5)), "only");
}

TEST(CacheMapLookup, ServesFromTheFirstRingWithALiveServer) {
  CacheMap map;
  map.setCacheMapString("a,b;c,d");
  EXPECT_EQ(map.getServerFor(path_with_index(0, 2)), "a");
  EXPECT_EQ(map.getServerFor(path_with_index(1, 2)), "b");

  map.setCacheMapString(";;x;y");  // empty rings are skipped
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(map.getServerFor(path_with_index(i, 3)), "x");
}

TEST(CacheMapLookup, FailsOnStandardErrorWithoutALiveServer) {
  const struct {
    const char* what;
    std::optional<std::string> text;  // nullopt: never set
    std::vector<std::string> invalidate;
  } cases[] = {
      {"never set", std::nullopt, {}},
      {"empty text", "", {}},
      {"only empty rings", ";;", {}},
      {"every server dead", "a;b", {"a", "b"}},
  };
  for (const auto& c : cases) {
    CacheMap map;
    if (c.text) map.setCacheMapString(*c.text);
    for (const auto& name : c.invalidate) map.invalidateServer(name);
    LogCapture::instance().clear();
    EXPECT_EQ(map.getServerFor("/abc/def/seg.ts"), "") << c.what;
    EXPECT_EQ(LogCapture::instance().lines(LogStream::err), Lines{"no valid ring found"}) << c.what;
    EXPECT_TRUE(LogCapture::instance().lines(LogStream::out).empty()) << c.what;
  }
}

TEST(CacheMapParse, BuildsRingsAsWrittenWithoutTrimmingOrValidation) {
  const struct {
    std::string text;
    std::string rings;
  } cases[] = {
      {"c1,c2;c3", R"(2: "c1" "c2" | 1: "c3")"},
      {"a,b;", R"(2: "a" "b")"},  // no trailing empty ring
      {";a", R"(0: | 1: "a")"},
      {"a;;b", R"(1: "a" | 0: | 1: "b")"},
      {";", "0:"},
      {"a, b", R"(2: "a" " b")"},
      {"a,,b", R"(3: "a" "" "b")"},
      {"a,b,;c", R"(2: "a" "b" | 1: "c")"},
      {"a,a;a", R"(2: "a" "a" | 1: "a")"},
      {"host:8080", R"(1: "host:8080")"},
      {"", ""},
  };
  for (const auto& c : cases) {
    CacheMap map;
    map.setCacheMapString(c.text);
    EXPECT_EQ(describe(map), c.rings) << "text: \"" << c.text << "\"";
  }
}

TEST(CacheMapParse, LogsTheTextThenEveryRingAndServer) {
  CacheMap map;
  EXPECT_EQ(stdout_of([&] { map.setCacheMapString("c1,c2;c3"); }),
            (Lines{"setting map to: c1,c2;c3", "ring: alive servers: 2", "  server: c1 alive",
                   "  server: c2 alive", "ring: alive servers: 1", "  server: c3 alive"}));
  EXPECT_EQ(stdout_of([&] { map.setCacheMapString(""); }), Lines{"setting map to: "});
  EXPECT_EQ(stdout_of([&] { map.setCacheMapString(";"); }),
            (Lines{"setting map to: ;", "ring: alive servers: 0"}));
}

TEST(CacheMapInvalidation, LookupsReWalkTheLiveServersByRank) {
  CacheMap map;
  map.setCacheMapString("a,b,c");
  const std::string rank0 = path_with_index(0, 2);
  const std::string rank1 = path_with_index(1, 2);

  EXPECT_EQ(stdout_of([&] { map.invalidateServer("b"); }),
            (Lines{"Invalidating cache server b", "ring: alive servers: 2", "  server: a alive",
                   "  server: b DEAD", "  server: c alive"}));
  EXPECT_EQ(describe(map), R"(2: "a" "b"! "c")");
  EXPECT_EQ(map.getServerFor(rank0), "a");
  EXPECT_EQ(map.getServerFor(rank1), "c");
}

TEST(CacheMapInvalidation, MatchesExactNamesInEveryRingAndCountsEachServerOnce) {
  const struct {
    std::string text;
    std::vector<std::string> invalidate;
    std::string rings;
  } cases[] = {
      {"a,b;b,c", {"b"}, R"(1: "a" "b"! | 1: "b"! "c")"},
      {"a,b,c", {"b", "b"}, R"(2: "a" "b"! "c")"},
      {"a,a", {"a"}, R"(0: "a"! "a"!)"},
      {"a,a", {"a", "a"}, R"(0: "a"! "a"!)"},
      {"a,b", {"x"}, R"(2: "a" "b")"},
      {"a,b", {"A"}, R"(2: "a" "b")"},
      {"a,b", {"a "}, R"(2: "a" "b")"},
      {"a,b", {""}, R"(2: "a" "b")"},
      {"a,,b", {""}, R"(2: "a" ""! "b")"},
      {"h:1,h:2", {"h"}, R"(2: "h:1" "h:2")"},
      {"", {"a"}, ""},
  };
  for (const auto& c : cases) {
    CacheMap map;
    map.setCacheMapString(c.text);
    for (const auto& name : c.invalidate) map.invalidateServer(name);
    EXPECT_EQ(describe(map), c.rings) << "text: \"" << c.text << "\"";
  }
}

TEST(CacheMapInvalidation, AnUnknownNameStillLogsTheListing) {
  CacheMap map;
  map.setCacheMapString("a");
  EXPECT_EQ(stdout_of([&] { map.invalidateServer("zz"); }),
            (Lines{"Invalidating cache server zz", "ring: alive servers: 1", "  server: a alive"}));
}

TEST(CacheMapInvalidation, AnExhaustedRingHandsOverToTheNextOne) {
  CacheMap map;
  map.setCacheMapString("a,b;c;d");
  map.invalidateServer("a");
  EXPECT_EQ(map.getServerFor("/abc/def/1.ts"), "b");
  map.invalidateServer("b");
  EXPECT_EQ(describe(map), R"(0: "a"! "b"! | 1: "c" | 1: "d")");
  EXPECT_EQ(map.getServerFor("/abc/def/1.ts"), "c");
  map.invalidateServer("c");
  EXPECT_EQ(map.getServerFor("/abc/def/1.ts"), "d");
  map.invalidateServer("d");
  EXPECT_EQ(map.getServerFor("/abc/def/1.ts"), "");
}

TEST(CacheMapInvalidation, ANewMapRevivesEveryServer) {
  CacheMap map;
  map.setCacheMapString("a,b;c");
  for (const char* name : {"a", "b", "c"}) map.invalidateServer(name);
  ASSERT_EQ(map.getServerFor("/abc/def/1.ts"), "");
  map.setCacheMapString("a,b;c");
  EXPECT_EQ(describe(map), R"(2: "a" "b" | 1: "c")");
  EXPECT_EQ(map.getServerFor(path_with_index(0, 2)), "a");
  EXPECT_EQ(map.getServerFor(path_with_index(1, 2)), "b");
}

TEST(CacheMapConcurrency, AliveCountsMatchTheLiveServersUnderMixedLoad) {
  using Clock = std::chrono::steady_clock;
  constexpr int kThreads = 8;
  constexpr int kMaxOpsPerThread = 5000;
  const auto deadline = Clock::now() + std::chrono::seconds(2);
  const Lines texts{"a,b,c;d,e;f", "a,b;b,c", "x", ";a,b,c,d", "", "f,e,d,c,b,a"};
  const Lines names{"a", "b", "c", "d", "e", "f", "x"};

  auto consistent = [](const std::vector<CacheServerRing>& rings) {
    return std::all_of(rings.begin(), rings.end(), [](const CacheServerRing& r) {
      const auto live = std::count_if(r.servers.begin(), r.servers.end(),
                                      [](const CacheServer& s) { return s.alive; });
      return static_cast<uint32_t>(live) == r.alive_count;
    });
  };

  CacheMap map;
  map.setCacheMapString(texts[0]);
  std::atomic<int> inconsistent{0};
  std::atomic<int> unknown_server{0};
  std::vector<std::thread> threads;
  std::optional<QuietStdout> quiet(std::in_place);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kMaxOpsPerThread && Clock::now() < deadline; ++i) {
        const size_t pick = static_cast<size_t>(t * 31 + i * 7);
        switch ((t + i) % 4) {
          case 0:
          case 1: {
            const std::string server =
                map.getServerFor("/ch" + std::to_string(pick % 50) + "/x/s.ts");
            if (!server.empty() && std::find(names.begin(), names.end(), server) == names.end()) {
              ++unknown_server;
            }
            break;
          }
          case 2:
            if ((i / 4) % 4 == 0) {  // one replacement to three invalidations
              map.setCacheMapString(texts[pick % texts.size()]);
            } else {
              map.invalidateServer(names[pick % names.size()]);
            }
            break;
          default:
            if (!consistent(map.snapshot())) ++inconsistent;
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  quiet.reset();
  EXPECT_EQ(inconsistent.load(), 0);
  EXPECT_EQ(unknown_server.load(), 0);
  EXPECT_TRUE(consistent(map.snapshot()));
  LogCapture::instance().clear();  // the load logged many thousands of lines
}

}  // namespace
}  // namespace skerir
