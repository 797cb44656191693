// The cache map: the first line is the map text; each further line is a lookup path, or, after
// "!", a server to invalidate. Alive counts always match the live servers, and a lookup returns
// a live server of the first ring that has one.
#include <algorithm>
#include <sstream>
#include <string>

#include "cachemap/cachemap.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::string line;
  std::getline(in, line);
  skerir::CacheMap map;
  map.setCacheMapString(line);
  while (std::getline(in, line)) {
    if (line.starts_with("!")) {
      map.invalidateServer(line.substr(1));
      continue;
    }
    const std::string server = map.getServerFor(line);
    for (const skerir::CacheServerRing& ring : map.snapshot()) {
      FUZZ_CHECK(std::count_if(ring.servers.begin(), ring.servers.end(),
                               [](const auto& s) { return s.alive; }) == ring.alive_count);
      if (ring.alive_count == 0) continue;
      FUZZ_CHECK(std::any_of(ring.servers.begin(), ring.servers.end(),
                             [&](const auto& s) { return s.alive && s.name == server; }));
      break;
    }
  }
  return 0;
}
