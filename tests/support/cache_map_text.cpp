#include "support/cache_map_text.h"

namespace skerir::test {

std::string describe(const CacheMap& map) {
  std::string out;
  for (const CacheServerRing& ring : map.snapshot()) {
    if (!out.empty()) out += " | ";
    out += std::to_string(ring.alive_count) + ":";
    for (const CacheServer& s : ring.servers) out += " \"" + s.name + "\"" + (s.alive ? "" : "!");
  }
  return out;
}

}  // namespace skerir::test
