// Every open client connection and every running stream of the process: shutdown must reach
// each of them, and "/streams.json" and "/metrics" list and count the streams.
//
// A connection thread registers its socket for as long as it serves the request, and a
// stream registers itself for as long as it runs, both through the RAII handles below. On
// shutdown the accepting thread calls shut_down_all(): every registered socket is shut down
// (blocked reads and writes on it end at once) and every stream is asked to stop; whatever
// registers after that is stopped as it registers.
//
// Threading: one mutex, `ConnectionRegistry::mutex_`, guards the two tables and the shutdown
// flag. The only lock taken while it is held is a stream buffer's reader wake-up (a leaf lock
// that takes no other). A socket leaves the table before its
// owner closes it, so shutdown never touches a descriptor number that was reused. The figures
// of a stream are atomics that its own threads update without the mutex.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "util/metrics.h"

namespace skerir {

class CBuffer;

struct StreamStatus {
  uint64_t id = 0;      // from 1, in start order
  std::string client;   // "192.0.2.1:40000" or "[2001:db8::1]:40000"
  std::string url;      // the requested URL with header values masked
  int64_t started = 0;  // Unix seconds
  StreamCounters counters;
  std::atomic<bool> stop{false};  // set on shutdown; the stream's connection thread ends it
  // The stream's buffer, whose reader is woken when `stop` is set. Outlives the registration;
  // read only under the registry's mutex while the stream is registered.
  CBuffer* buffer = nullptr;
};

class ConnectionRegistry {
 public:
  // The registry of the process; never destroyed.
  static ConnectionRegistry& process();

  // One client connection, registered while the handle lives.
  class Connection {
   public:
    Connection(ConnectionRegistry& registry, int socket);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

   private:
    ConnectionRegistry& registry_;
    int socket_;
  };

  // One running stream, registered while the handle lives. `buffer`, if given, must outlive
  // the handle: its reader is woken when the stream is told to stop.
  class Stream {
   public:
    Stream(ConnectionRegistry& registry, std::string client, std::string url,
           CBuffer* buffer = nullptr);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    StreamStatus& status() { return *status_; }
    // The stream's counters, kept alive for as long as the engine holds them.
    std::shared_ptr<StreamCounters> counters() const;

   private:
    ConnectionRegistry& registry_;
    std::shared_ptr<StreamStatus> status_;
  };

  // The running streams in start order; the records stay valid while the caller holds them.
  std::vector<std::shared_ptr<const StreamStatus>> streams() const;
  size_t stream_count() const;
  size_t connection_count() const;

  // Shuts every registered socket down and stops every stream, now and from now on.
  void shut_down_all();

 private:
  mutable std::mutex mutex_;
  std::vector<int> sockets_;                            // guarded by mutex_
  std::vector<std::shared_ptr<StreamStatus>> streams_;  // guarded by mutex_
  uint64_t last_stream_id_ = 0;                         // guarded by mutex_
  bool shutting_down_ = false;                          // guarded by mutex_
};

}  // namespace skerir
