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

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hls/variant_playlist.h"
#include "upstream/stream_url.h"
#include "upstream/ucurl.h"
#include "util/metrics.h"

namespace skerir {

class CBuffer;
struct Stats;

// A playlist or key fetch gives up after this long, whatever the upstream does: one that drips
// its answer a byte at a time never trips a per-read time-out.
inline constexpr std::chrono::seconds kFetchDeadline{30};
// How far one segment may fill the stream buffer past its limit before the download waits for
// the client: segments are fetched whole between limit checks, so without this a segment that
// announces a huge length would fill memory as fast as its origin sends.
inline constexpr uint64_t kBufferAllowance = 4 << 20;

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
  // Finishes the engine if its owner has not (joining both threads), then frees it.
  ~MasterPlaylist();

  // Fetches the master playlist, chooses the first variant and starts the refresh-timer
  // thread. False when the master playlist or a variant is unavailable (no thread is left
  // running then). Connection thread, once.
  bool start_refreshing();
  // Fetches and parses the master playlist and makes the first choice. Once per stream.
  bool refresh();
  // The refresh-timer loop: one tick a second until should_finish. Refresh-timer thread.
  bool refresh_timer();
  // Joins the previous fill pass, refreshes the media playlist unless five or more chunks are
  // still queued, and starts the next fill pass. False when the playlist is unavailable.
  // Refresh-timer thread.
  bool refresh_variant();
  // One download pass over the queued chunks. Fill thread; always true.
  bool fill_buffer();
  // Fetches the AES-128 key at `from` into `key` (its first 16 bytes). False, with `key` and
  // `key_url` cleared so that the next attempt asks again, when the fetch fails or the body
  // is shorter than a key. Fill thread.
  bool fetch_key(const std::string& from);
  // Sets should_finish and joins both threads. Connection thread; idempotent.
  void finish();

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
  std::string base_url;  // where `url` led after redirects; relative URIs resolve against it
  std::vector<PlaylistVariantDef> variants;
  CBuffer* buffer;
  // Written by the timer (fill) or the connection thread (refresh); finish() joins the timer
  // first, so once it is joined nobody else touches either.
  std::thread fill_thread;
  std::thread refresh_thread;
  uint64_t max_buffer_size;  // bytes
  uint64_t last_seq = 0;
  std::atomic<bool> fill_running{false};
  UCurl curl;  // segment client, kept across chunks and passes (keep-alive)
  std::atomic<int32_t> refresh_countdown{0};  // seconds
  std::atomic<bool> waiting_for_room{false};  // the last pass stopped at a full buffer
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
  // Once an engine thread has set it, its thread entry wakes the buffer's reader before it
  // returns: the stream endpoint sleeps on its empty buffer until there is something to do.
  std::atomic<bool> should_finish{false};
  // Where this stream's figures are counted; the stream endpoint replaces it with the record
  // "/streams.json" shows, before start_refreshing.
  std::shared_ptr<StreamCounters> counters = std::make_shared<StreamCounters>();
  // Sent with every upstream request of the stream (the "|Name=Value" suffix of its URL).
  HeaderList upstream_headers;

 private:
  // Waits `duration`, or less once should_finish is set (finish() wakes it), so the timer's
  // tick and the retry pause never delay the end of a stream.
  void sleep_unless_finishing(std::chrono::milliseconds duration);

  std::mutex wake_mutex;
  std::condition_variable wake;
};

// Thread entries; each takes the MasterPlaylist and contains every failure of its thread.
void* do_refresh_timer(void* mpl);
void* do_masterplaylist_fill_buffer(void* mpl);

}  // namespace skerir
