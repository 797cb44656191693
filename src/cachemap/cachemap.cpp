#include "cachemap/cachemap.h"

#include "cachemap/crc32.h"
#include "util/log.h"
#include "util/metrics.h"
#include "util/strings.h"

namespace skerir {

CacheMap* cache_map = nullptr;
CacheMap* cache_map_playlist = nullptr;

namespace {

constexpr std::string_view kLivePrefix = "/_live/";
constexpr int kHashShift = 16;
constexpr uint32_t kHashMask = 0x7FFF;

}  // namespace

void create_cache_maps() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Process-wide and never freed: upstream clients of detached threads may use them until exit.
    if (cache_map == nullptr) cache_map = new CacheMap();
    if (cache_map_playlist == nullptr) cache_map_playlist = new CacheMap();
  });
}

std::string CacheMap::keyFor(const std::string& url) {
  const size_t start = url.starts_with(kLivePrefix) ? kLivePrefix.size() : 1;
  if (start > url.size()) return "";  // only the empty path; never sent by the upstream client
  // Unsigned wrap-around is relied on: a missing first "/" makes p1 + 1 wrap to 0, so the
  // second search starts over; a missing second "/" (or p2 == 0 found that way) makes the
  // length wrap past the end, and substr clamps it, so the key runs to the end of the path.
  const size_t p1 = url.find('/', start);
  const size_t p2 = url.find('/', p1 + 1);
  std::string key = url.substr(start, p2 - start);
  if (const size_t q = key.find('?'); q != std::string::npos) key.resize(q);
  return key;
}

uint32_t CacheMap::hashFor(std::string_view key) { return (crc32(key) >> kHashShift) & kHashMask; }

void CacheMap::setCacheMapString(std::string map) {
  std::lock_guard lock(mutex_);
  // Built aside first, so a failed allocation leaves the old map in place.
  std::vector<CacheServerRing> rings;
  for (std::string& ring_text : split(map, ';')) {
    CacheServerRing ring;
    for (std::string& name : split(ring_text, ',')) ring.servers.push_back({std::move(name), true});
    ring.alive_count = static_cast<uint32_t>(ring.servers.size());
    rings.push_back(std::move(ring));
  }
  rings_ = std::move(rings);
  log_out("setting map to: ", map);
  logMap();
}

void CacheMap::logMap() const {
  for (const CacheServerRing& ring : rings_) {
    log_out("ring: alive servers: ", ring.alive_count);
    for (const CacheServer& s : ring.servers) {
      log_out("  server: ", s.name, s.alive ? " alive" : " DEAD");
    }
  }
}

std::string CacheMap::getServerFor(std::string url) {
  std::lock_guard lock(mutex_);
  const std::string key = keyFor(url);

  const CacheServerRing* ring = nullptr;
  for (const CacheServerRing& r : rings_) {
    if (r.alive_count != 0) {
      ring = &r;
      break;
    }
  }
  if (ring == nullptr) {
    log_err("no valid ring found");
    return "";
  }

  // The index counts live servers only, so it is taken modulo the alive count and resolved by
  // rank among the live servers, never by position.
  const uint32_t index = hashFor(key) % ring->alive_count;
  const CacheServer* chosen = nullptr;
  uint32_t rank = 0;
  for (const CacheServer& s : ring->servers) {
    if (!s.alive) continue;
    chosen = &s;
    if (rank == index) break;
    ++rank;
  }
  if (chosen == nullptr) {
    log_err("no server found in ring");
    return "";
  }
  log_out("for url ", url, " key ", key, " selected server: ", chosen->name);
  return chosen->name;
}

void CacheMap::invalidateServer(std::string server) {
  std::lock_guard lock(mutex_);
  log_out("Invalidating cache server ", server);
  for (CacheServerRing& ring : rings_) {
    for (CacheServer& s : ring.servers) {
      if (!s.alive || s.name != server) continue;
      s.alive = false;
      count(metrics().cache_servers_invalidated);
      if (ring.alive_count > 0) --ring.alive_count;
    }
  }
  logMap();
}

std::vector<CacheServerRing> CacheMap::snapshot() const {
  std::lock_guard lock(mutex_);
  return rings_;
}

}  // namespace skerir
