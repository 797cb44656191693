// The master playlist parser and the variant choice made over what it parsed. Input: the
// average speed (8 bytes) and the playlist text.
#include <cstring>
#include <string>

#include "buffer/cbuffer.h"
#include "fuzz_check.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  uint64_t avg;
  std::memcpy(&avg, data, 8);
  std::string text(reinterpret_cast<const char*>(data) + 8, size - 8);
  skerir::Stats stats;
  stats.avg_speed = avg;
  skerir::CBuffer buffer;
  skerir::MasterPlaylist master("http://o/m.m3u8", &buffer, 1000, &stats, 0);
  master.parse_playlist(&text);
  for (int round = 0; round < 2; ++round) {
    const bool ok = master.select_variant();
    FUZZ_CHECK(ok == (master.selected != nullptr));
    if (!ok) break;
    FUZZ_CHECK(master.variant && master.variant->url == master.selected->url);
    FUZZ_CHECK(master.boundary_low <= master.selected->bandwidth);
    for (const auto& v : master.variants) {
      // The highest bandwidth the speed covers, or the lowest when it covers none.
      FUZZ_CHECK(v.invalid || v.bandwidth <= master.selected->bandwidth ||
                 (v.bandwidth >> 10) > stats.avg_speed);
    }
    master.selected->invalid = true;
    stats.avg_speed = avg / 2;
  }
  return 0;
}
