// The process's counters for "/metrics", and the figures of one running stream for
// "/streams.json".
//
// These records sit in util, below every layer, because the upstream client, the playlist
// engine, the cache maps and the endpoints all count into them where the event happens; so,
// like the Stats record, they depend on nothing but the standard library.
//
// Threading: any thread may count at any time. Every figure is one atomic on its own, updated
// with relaxed ordering: nothing is ever decided from a counter, and a reader that sees one
// counter a step ahead of another (a segment counted before its bytes are) shows a state that
// was true a moment ago, which is all a scrape promises.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace skerir {

// How one attempt of an upstream request ended.
enum class UpstreamOutcome : size_t {
  kOk,            // a 2xx status line and the whole header block arrived
  kHttpError,     // the server answered with another status
  kConnectError,  // resolving, connecting, or refused by the upstream allow list
  kSendError,     // the request could not be written
  kReceiveError,  // no usable status line or headers: time-out, closed, not HTTP
  kUrlError,      // unknown scheme, or no cache server for a placeholder host
};
inline constexpr size_t kUpstreamOutcomes = 6;

struct Metrics {
  std::atomic<uint64_t> streams_started{0};
  std::atomic<uint64_t> client_bytes_sent{0};
  std::atomic<uint64_t> segments_fetched{0};
  std::atomic<uint64_t> segments_failed{0};  // given up after every retry
  std::atomic<uint64_t> segment_resumes{0};  // Range requests continuing a cut segment
  std::atomic<uint64_t> key_fetches{0};
  std::atomic<uint64_t> variant_switches_up{0};
  std::atomic<uint64_t> variant_switches_down{0};
  std::atomic<uint64_t> cache_servers_invalidated{0};
  std::array<std::atomic<uint64_t>, kUpstreamOutcomes> upstream_requests{};
};

// The one record of the process; it is never destroyed.
Metrics& metrics();

inline void count(std::atomic<uint64_t>& counter, uint64_t n = 1) {
  counter.fetch_add(n, std::memory_order_relaxed);
}

// Counts one upstream request attempt, by the outcome last set, when it goes out of scope.
// An attempt left by an exception (a receive that timed out or failed) keeps the default.
struct UpstreamAttempt {
  UpstreamOutcome outcome = UpstreamOutcome::kReceiveError;
  ~UpstreamAttempt() { count(metrics().upstream_requests[static_cast<size_t>(outcome)]); }
};

// The live figures of one stream. Its connection thread writes the client side, its engine's
// threads the download side; "/streams.json" reads them. The per-stream counts also feed the
// process's counters, so each event is counted by one call.
struct StreamCounters {
  std::atomic<uint64_t> selected_bandwidth{0};  // bit/s, as the master playlist declares it
  std::atomic<uint64_t> bytes_sent{0};
  std::atomic<uint64_t> buffer_bytes{0};
  std::atomic<uint64_t> last_segment_speed{0};  // kbit/s
  std::atomic<uint64_t> segments_fetched{0};
  std::atomic<uint64_t> segments_failed{0};

  void sent(uint64_t n) {
    count(bytes_sent, n);
    count(metrics().client_bytes_sent, n);
  }
  void segment_fetched(uint64_t speed_kbit) {
    last_segment_speed.store(speed_kbit, std::memory_order_relaxed);
    count(segments_fetched);
    count(metrics().segments_fetched);
  }
  void segment_failed() {
    count(segments_failed);
    count(metrics().segments_failed);
  }
};

}  // namespace skerir
