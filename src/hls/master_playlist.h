// The engine of one stream: the variants of its master playlist, the variant currently
// played with its media playlist, and the speed band that decides when to switch.
//
// Ownership: `buffer` belongs to the stream endpoint and `stats` to the process; both outlive
// this object. `variant` is owned here and replaced on every reselection; `selected` points
// into `variants`, which only parse_playlist rebuilds (before any selection), so it stays valid
// for the life of the stream.
//
// Threads: the connection thread constructs, starts, finishes and destroys the engine; the
// refresh-timer thread selects variants and refreshes the media playlist; one fill thread at a
// time consumes it. No mutex guards the fields: exclusion rests on `fill_running` and on
// joining the previous fill thread, and the flags several threads write are atomic.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hls/variant_playlist.h"

namespace skerir {

class CBuffer;
struct Stats;

// One variant of a master playlist, held by value in playlist order.
struct PlaylistVariantDef {
  uint64_t bandwidth = 0;  // the BANDWIDTH attribute, bit/s
  std::string url;         // the URI line, trimmed, used as written (never resolved)
  bool invalid = false;    // its playlist could not be refreshed; selection skips it
};

class MasterPlaylist {
 public:
  // `buffer` and `stats` must be non-null and outlive the engine.
  MasterPlaylist(std::string url, CBuffer* buffer, unsigned long max_buffer_size, Stats* stats,
                 int startFrom);
  MasterPlaylist(const MasterPlaylist&) = delete;
  MasterPlaylist& operator=(const MasterPlaylist&) = delete;

  // Replaces `variants` with those of the master playlist in `*text`. Every line after the
  // first that is not a stream-info tag is taken as a variant URI, with the bandwidth of the
  // last stream-info tag before it (0 before the first). Returns false on a text whose trimmed
  // first line is not "#EXTM3U" ("This is not m3u playlist!") and at once on a stream-info tag
  // without BANDWIDTH ("Variant does not specify bandwidth!", variants so far kept), both on
  // standard error; true otherwise.
  bool parse_playlist(std::string* text);

  // Keeps the selected variant while the average speed (stats->avg_speed, kbit/s) stays in its
  // band [boundary_low, boundary_high) (bit/s >> 10), or while the speed is below the band but
  // the buffer is at least 60 % full; otherwise selects the highest-bandwidth valid variant the
  // speed covers (the lowest when it covers none), sets the band around it and gives it a fresh,
  // empty VariantPlaylist. Returns false when no valid variant exists (`selected` and `variant`
  // null) or when the speed lies inside a band with nothing selected. Logs every step on
  // standard output. Refresh-timer thread only, never while a fill thread runs.
  bool select_variant();

  std::string url;
  std::vector<PlaylistVariantDef> variants;
  CBuffer* buffer;
  pthread_t fill_thread{};
  bool fill_thread_started = false;
  pthread_t refresh_thread{};
  bool refresh_thread_started = false;
  uint64_t max_buffer_size;  // bytes
  uint64_t last_seq = 0;
  std::atomic<bool> fill_running{false};
  std::atomic<int32_t> refresh_countdown{0};  // seconds
  int32_t failed_chunks = 0;
  int32_t empty_reloads = 0;
  int32_t startFrom;
  Stats* stats;
  uint64_t boundary_low = 0;   // bit/s
  uint64_t boundary_high = 0;  // bit/s
  std::string key;
  std::string key_url;
  PlaylistVariantDef* selected = nullptr;
  std::unique_ptr<VariantPlaylist> variant;
  std::atomic<bool> should_finish{false};
};

}  // namespace skerir
