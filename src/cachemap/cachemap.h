// Cache-server maps: the servers that upstream requests for the placeholder hosts are sent to.
//
// A map is a list of rings in priority order; each ring is a list of servers. The first ring
// that still has a live server serves every request, later rings are fallbacks for when all of
// the earlier ones have been invalidated. Within that ring a request's key (two components of
// its path) picks one live server by CRC-32, so every request of one stream lands on the same
// server while the map is unchanged. A server that failed is marked dead and stays dead until
// the map is replaced.
//
// Threading: every public operation takes the map's one mutex for its whole run, logging
// included, so a lookup sees either the old or the new map, and a ring's alive count always
// matches its alive flags. Nothing else is locked while the mutex is held.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace skerir {

struct CacheServer {
  std::string name;  // as written in the map text; the upstream client reads it as host:port
  bool alive = true;
};

struct CacheServerRing {
  std::vector<CacheServer> servers;  // in the order written
  uint32_t alive_count = 0;          // servers whose `alive` is set
};

class CacheMap {
 public:
  CacheMap() = default;
  CacheMap(const CacheMap&) = delete;
  CacheMap& operator=(const CacheMap&) = delete;

  // Replaces the whole map by `map`: rings separated by ";", servers by ",", nothing trimmed
  // or validated; every server starts alive. Logs "setting map to: " + map, then the listing.
  void setCacheMapString(std::string map);

  // The live server for the request path `url` (e.g. "/_live/abc/def/seg.ts"), or "" when the
  // map has no live server (logged on standard error). Logs the choice on standard output.
  std::string getServerFor(std::string url);

  // Marks every live server named exactly `server` dead, in every ring, and logs the listing.
  // An unknown or already dead name changes nothing.
  void invalidateServer(std::string server);

  // A copy of the rings taken under the mutex, for inspection.
  std::vector<CacheServerRing> snapshot() const;

  // The key a request path is hashed by: the two path components after "/_live/" when the path
  // starts with it, otherwise the first two; cut at the first "?". With fewer slashes the key
  // runs to the end of the path ("/abc" gives "abc"). Pure.
  static std::string keyFor(const std::string& url);

  // Bits 16 to 30 of the key's CRC-32: 0 to 32767. The key "abc/def" gives 8407.
  static uint32_t hashFor(std::string_view key);

 private:
  // REQUIRES: mutex_ held.
  void logMap() const;

  mutable std::mutex mutex_;
  std::vector<CacheServerRing> rings_;  // guarded by mutex_
};

// The two process-wide maps: servers for media segments ("@" hosts) and for playlists ("~"
// hosts). Set once by create_cache_maps() and never freed; null before.
extern CacheMap* cache_map;
extern CacheMap* cache_map_playlist;

// Creates the two maps, segment map first, unless they exist already. The first call from any
// thread does the work; every call returns after it and makes the pointers visible to the
// caller, so several listeners in one process share one pair.
void create_cache_maps();

}  // namespace skerir
