// A fault-and-load driver for "/stream": many client slots run streams back to back for a fixed
// time against presentations on scripted origins. Each stream gets its own presentation (a
// unique name, so the server's log lines can be told apart) and at most one fault, drawn from a
// generator seeded by (slot, stream number), so a run is the same whatever the thread timing.
//
// Clients never keep a body: they hash it as it arrives, and judge() compares each clean
// stream's hash with the segments the server reported delivering ("got chunk (seq N) from URL
// with size ..." on standard output), regenerated from their deterministic bytes.
//
// Threads: run() and warm_up() block the calling thread, which alone calls `tick`, kills the
// cache server and owns every other method; slot threads touch only their own records and the
// origins (which are thread-safe).
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "support/scripted_origin.h"

namespace skerir::test {

enum class LoadFault {
  kNone,                // a fast client reads everything of a clean presentation
  kSlowReader,          // a clean presentation read a few KiB at a time
  kClientVanishes,      // the client closes (sometimes with a reset) part-way
  kStallBeforeHeaders,  // a segment or playlist answers only after the status time-out
  kStallMidBody,        // a segment pauses mid-body beyond the receive time-out once
  kCutBody,             // a segment's connection ends part-way through its body
  kSegmentStatus,       // a segment answers 404, 500 or a garbage status line
  kPlaylistStatus,      // a master or media playlist answers 404, 500 or garbage
  kJunkLines,           // junk lines in the master or media playlist
  kCacheServer,         // "~"/"@" hosts over two cache servers, one of which dies mid-run
};
inline constexpr size_t kLoadFaultKinds = 10;
const char* fault_name(LoadFault fault);

struct LoadPlan {
  int slots = 200;
  std::chrono::seconds duration{60};
  uint64_t seed = 0x5ce41e;
  // When the first cache server is destroyed, counted from the start of the load.
  std::chrono::seconds cache_death_at{25};
  // How long one client waits for its stream to end; only a hung stream gets near it.
  std::chrono::seconds stream_deadline{300};
};

// One stream as its client saw it.
struct StreamRecord {
  std::string name;  // the presentation: paths "/<name>/..."
  LoadFault fault = LoadFault::kNone;
  size_t segment_size = 0;
  int segments = 0;
  bool connected = false;   // the request went out whole: the server owes a cleanup line
  bool closed = false;      // the server ended the body before the client's deadline
  bool vanished = false;    // the client closed first, as its fault says
  bool timed_out = false;   // the client's deadline passed with the stream still open
  bool head_ok = false;     // the reply began with the streaming header
  uint64_t body_bytes = 0;  // received after the header block
  uint64_t body_hash = 0;   // FNV-1a of those bytes
  double seconds = 0;       // from connect to close
};

struct LoadVerdict {
  size_t clean = 0;                   // clean streams whose client read until the server closed
  size_t byte_exact = 0;              // of those, bodies equal to the segments the server reported
  size_t complete = 0;                // of those, every segment of the presentation in order
  std::vector<std::string> failures;  // the first few streams that were not byte-exact
};

// FNV-1a, 64 bit, continued from `hash`.
inline constexpr uint64_t kFnvBasis = 14695981039346656037ull;
uint64_t fnv1a(uint64_t hash, const char* data, size_t size);

class StreamLoad {
 public:
  explicit StreamLoad(LoadPlan plan);
  ~StreamLoad();
  StreamLoad(const StreamLoad&) = delete;
  StreamLoad& operator=(const StreamLoad&) = delete;

  // Points both cache maps of the server on `port` at one ring of the two cache servers.
  // False when the server did not answer "OK".
  bool install_cache_maps(int port);
  // Runs streams back to back on `slots` clients for `duration`, with the load's mix of faults
  // (another draw of them), and returns when all have ended.
  void warm_up(int port, int slots, std::chrono::seconds duration);
  size_t warm_up_streams() const { return warm_up_streams_; }
  // The load: every slot runs streams until the plan's duration has passed, then finishes its
  // current one. `tick` runs on the calling thread about every 100 ms until every slot is done.
  void run(int port, const std::function<void()>& tick);

  // Judges every clean stream against the server's standard-output lines, in order.
  LoadVerdict judge(const std::vector<std::string>& out_lines) const;

  const std::vector<StreamRecord>& records() const { return records_; }
  size_t connected() const;
  // Streams whose request could not be sent (refused or failed connects).
  size_t connect_failures() const { return records_.size() - connected(); }
  std::array<size_t, kLoadFaultKinds> streams_per_fault() const;
  bool cache_server_killed() const { return cache_killed_; }
  // Waits until the origins still alive have no open connection.
  bool wait_for_idle_origins(std::chrono::milliseconds timeout) const;

 private:
  struct Installed;
  StreamRecord run_stream(int port, const std::string& name, uint64_t seed, bool warm);
  Installed install(const std::string& name, LoadFault fault, std::mt19937_64& rng);
  void uninstall(const Installed& installed);
  void kill_cache_server();

  LoadPlan plan_;
  ScriptedOrigin origin_;
  std::unique_ptr<ScriptedOrigin> cache_b_;
  mutable std::mutex cache_mutex_;           // guards cache_a_ and cache_a_hold_
  std::unique_ptr<ScriptedOrigin> cache_a_;  // destroyed mid-run
  std::unique_ptr<RefusingPort> cache_a_hold_;
  bool cache_killed_ = false;
  size_t warm_up_streams_ = 0;
  std::vector<StreamRecord> records_;
};

}  // namespace skerir::test
