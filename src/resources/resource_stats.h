// The process-wide statistics record and the "/stats.json" endpoint that publishes it.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace skerir {

// One record for the whole process, written by every stream's fill thread and connection
// thread and read by "/stats.json" and variant selection. Each field is atomic on its own;
// readers may see a mix of old and new values, which nothing depends on, so relaxed ordering
// is enough everywhere.
struct Stats {
  std::atomic<uint64_t> last_chunk_speed{0};  // kbit/s of the most recent segment
  std::atomic<uint64_t> avg_speed{0};         // kbit/s, weighted average of speed_history
  std::atomic<uint64_t> cbuff_size{0};        // KiB held in the stream buffer
  std::atomic<uint64_t> selected_profile{0};  // selected bandwidth >> 10
  std::array<std::atomic<uint64_t>, 5> speed_history{};  // [0] newest .. [4] oldest, kbit/s

  void zero();

  // Records a segment fetched at `speed` kbit/s with `buffered` bytes in the stream buffer while
  // the selected variant has `bandwidth` bit/s. A speed of at least half the bandwidth enters
  // the history and the average becomes (3·h1 + 2·h2 + 2·h3 + h4 + h5) / 9, h1 the newest; a
  // slower one is a sudden drop: the history restarts from it (h1 and the average the speed,
  // the others half of it) and the result is false.
  bool record_segment(uint64_t speed, uint64_t buffered, uint64_t bandwidth);
};

// Answers one "/stats.json" request on `socket` (header block, then the JSON body in one
// write). Runs on the connection thread; never closes the socket.
class ResourceStats {
 public:
  ResourceStats(int socket, Stats* stats);
  void serve();

  // The JSON body, newline included.
  static std::string body(const Stats& stats);

 private:
  int socket_;
  Stats* stats_;
};

}  // namespace skerir
