#include <cstdint>
#include <limits>
#include <memory>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"
#include "util/log.h"
#include "util/metrics.h"

namespace skerir {
namespace {

// Below its band, a variant is still kept while the buffer is at least this full.
constexpr double kAdequateBufferFill = 0.6;
// The band of a variant ends where the next higher one, with this much headroom, begins.
constexpr double kSwitchUpHeadroom = 1.2;
// The upper edge of the highest variant's band: never reached.
constexpr uint64_t kNoUpperBound = std::numeric_limits<uint64_t>::max();

// bit/s to kbit/s (1 kbit = 1024 bits), rounding down.
constexpr uint64_t kbit(uint64_t bits_per_second) { return bits_per_second >> 10; }

// `bandwidth` × 1.2 truncated, saturating where the product leaves the 64-bit range.
uint64_t switch_up_edge(uint64_t bandwidth) {
  const double edge = static_cast<double>(bandwidth) * kSwitchUpHeadroom;
  // 2^64 is exact in double; anything at or above it does not convert.
  if (edge >= 18446744073709551616.0) return kNoUpperBound;
  return static_cast<uint64_t>(edge);
}

}  // namespace

bool MasterPlaylist::select_variant() {
  const uint64_t avg = stats->avg_speed.load(std::memory_order_relaxed);
  const uint64_t low = kbit(boundary_low);
  const uint64_t high = kbit(boundary_high);
  log_out("select variant, curr avg in bps: ", avg << 10);

  if (avg >= low) {
    if (avg < high) {
      if (selected == nullptr) {
        log_err("Unable no variant chosen!");
        return false;
      }
      if (!selected->invalid) return true;
    }
  } else {
    // Slower than the variant's own bitrate, but a well-filled buffer rides it out. Both sides
    // go through float, as the fill thread's figures always have.
    const uint64_t size = buffer->size.load(std::memory_order_relaxed);
    const float size_f = static_cast<float>(size);
    const float max_f = static_cast<float>(max_buffer_size);
    if (static_cast<double>(size_f) >= static_cast<double>(max_f) * kAdequateBufferFill) {
      log_out("download is slow, but buffer is adequate -> select variant canceled (", size, " / ",
              max_buffer_size);
      return true;
    }
  }

  const PlaylistVariantDef* previous = selected;  // points into `variants`, which stays put
  selected = nullptr;
  variant.reset();

  // Strict comparisons: among equal bandwidths the earliest entry wins.
  PlaylistVariantDef* lowest = nullptr;
  PlaylistVariantDef* highest = nullptr;
  for (PlaylistVariantDef& v : variants) {
    if (v.invalid) continue;
    if (lowest == nullptr || v.bandwidth < lowest->bandwidth) lowest = &v;
    if (highest == nullptr || v.bandwidth > highest->bandwidth) highest = &v;
  }
  if (lowest == nullptr) return false;
  log_out("SELECT: min: ", lowest->bandwidth, " max: ", highest->bandwidth);

  // The highest bandwidth the average covers; the lowest one when it covers none.
  PlaylistVariantDef* best = lowest;
  for (PlaylistVariantDef& v : variants) {
    if (v.invalid) continue;
    log_out("SELECT BEST kbps: ", kbit(best->bandwidth), "CUR bps: ", avg);
    if (v.bandwidth > best->bandwidth && kbit(v.bandwidth) <= avg) {
      best = &v;
      log_out("SELECT NEW BEST: ", v.bandwidth);
    }
  }
  selected = best;
  counters->selected_bandwidth.store(best->bandwidth, std::memory_order_relaxed);
  if (previous != nullptr && best->bandwidth != previous->bandwidth) {
    count(best->bandwidth > previous->bandwidth ? metrics().variant_switches_up
                                                : metrics().variant_switches_down);
  }

  // The lowest bandwidth strictly above best; the highest entry when none lies between.
  PlaylistVariantDef* higher = highest;
  for (PlaylistVariantDef& v : variants) {
    if (v.invalid) continue;
    log_out("SELECT BEST first higher bps: ", higher->bandwidth, "CUR BEST bps: ", best->bandwidth);
    if (v.bandwidth > best->bandwidth && v.bandwidth < higher->bandwidth) {
      higher = &v;
      log_out("SELECT NEW BEST first higher: ", v.bandwidth);
    }
  }

  variant = std::make_unique<VariantPlaylist>(best->url);
  variant->headers = upstream_headers;
  boundary_low = best->bandwidth == lowest->bandwidth ? 0 : best->bandwidth;
  boundary_high =
      best->bandwidth == highest->bandwidth ? kNoUpperBound : switch_up_edge(higher->bandwidth);
  log_out("selected variant bitrate: ", best->bandwidth, "URL: ", best->url);
  log_out("boundary low: ", boundary_low, " high: ", boundary_high);
  return true;
}

}  // namespace skerir
