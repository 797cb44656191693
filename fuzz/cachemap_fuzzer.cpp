// Fuzzes the cache-server map: the map text as an operator sends it, then a script of lookups
// and invalidations, with the map's bookkeeping checked after every step.
//
// Input lines: the first is the map text; each further line is an operation:
//   "!name"  invalidateServer("name")
//   "=text"  setCacheMapString("text")
//   other    getServerFor(line), the line being the request path
#include <cstdint>
#include <string>
#include <vector>

#include "cachemap/cachemap.h"
#include "fuzz_check.h"
#include "util/strings.h"

namespace {

using skerir::CacheMap;
using skerir::CacheServerRing;

// Operations per input; each one logs the whole map, so more only slows the fuzzer down.
constexpr size_t kMaxOperations = 64;

void check_counts(const std::vector<CacheServerRing>& rings) {
  for (const CacheServerRing& ring : rings) {
    uint32_t alive = 0;
    for (const auto& s : ring.servers) alive += s.alive ? 1 : 0;
    FUZZ_CHECK(ring.alive_count == alive);
  }
}

void check_set(CacheMap& map, const std::string& text) {
  map.setCacheMapString(text);
  const std::vector<CacheServerRing> rings = map.snapshot();
  const std::vector<std::string> ring_texts = skerir::split(text, ';');
  FUZZ_CHECK(rings.size() == ring_texts.size());
  for (size_t r = 0; r < rings.size(); ++r) {
    const std::vector<std::string> names = skerir::split(ring_texts[r], ',');
    FUZZ_CHECK(rings[r].servers.size() == names.size());
    for (size_t s = 0; s < names.size(); ++s) {
      FUZZ_CHECK(rings[r].servers[s].name == names[s] && rings[r].servers[s].alive);
    }
  }
  check_counts(rings);
}

void check_lookup(CacheMap& map, const std::string& path) {
  const std::string key = CacheMap::keyFor(path);
  FUZZ_CHECK(key.find('?') == std::string::npos);
  FUZZ_CHECK(path.find(key) != std::string::npos);
  FUZZ_CHECK(CacheMap::hashFor(key) <= 0x7FFF);

  const std::vector<CacheServerRing> rings = map.snapshot();
  std::string expected;
  for (const CacheServerRing& ring : rings) {
    if (ring.alive_count == 0) continue;
    uint32_t rank = CacheMap::hashFor(key) % ring.alive_count;
    for (const auto& s : ring.servers) {
      if (s.alive && rank-- == 0) {
        expected = s.name;
        break;
      }
    }
    break;
  }
  FUZZ_CHECK(map.getServerFor(path) == expected);
  check_counts(map.snapshot());
}

void check_invalidate(CacheMap& map, const std::string& name) {
  const std::vector<CacheServerRing> before = map.snapshot();
  map.invalidateServer(name);
  const std::vector<CacheServerRing> after = map.snapshot();
  FUZZ_CHECK(before.size() == after.size());
  for (size_t r = 0; r < after.size(); ++r) {
    FUZZ_CHECK(before[r].servers.size() == after[r].servers.size());
    for (size_t s = 0; s < after[r].servers.size(); ++s) {
      const auto& was = before[r].servers[s];
      const auto& now = after[r].servers[s];
      FUZZ_CHECK(was.name == now.name);
      FUZZ_CHECK(now.alive == (was.alive && now.name != name));
    }
  }
  check_counts(after);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines = skerir::split(input, '\n');
  if (lines.empty()) lines.emplace_back();

  CacheMap map;
  // An empty map fails every lookup.
  FUZZ_CHECK(map.getServerFor("/abc/def/seg.ts").empty());
  check_set(map, lines[0]);
  for (size_t i = 1; i < lines.size() && i <= kMaxOperations; ++i) {
    const std::string& line = lines[i];
    if (!line.empty() && line[0] == '!') {
      check_invalidate(map, line.substr(1));
    } else if (!line.empty() && line[0] == '=') {
      check_set(map, line.substr(1));
    } else {
      check_lookup(map, line);
    }
  }
  return 0;
}
