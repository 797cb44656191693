// The listening side of the server: binds the port, creates the process-wide objects every
// connection shares, and accepts connections on the calling thread, handing each one to a
// Request on a detached thread of its own. The accepting thread never reads or writes a
// client socket.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include "resources/resource_stats.h"
#include "resources/watchdog.h"
#include "util/unique_fd.h"

namespace skerir {

// A fatal listener failure; main prints what() and exits with status 0.
class ListenerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr int kListenPort = 7744;
inline constexpr int kListenBacklog = 5;
inline constexpr int kClientTimeoutSeconds = 10;  // receive and send time-out per client socket
inline constexpr int kAcceptWaitMs = 1000;        // bounds the interval between watchdog checks

class Webserver {
 public:
  Webserver(unsigned int address, int port, int backlog, unsigned long max_buffer_size);
  ~Webserver();

  // Creates, configures, binds and listens. Throws ListenerError.
  void do_bind();

  // Binds (unless do_bind() already ran), creates the shared objects, then accepts for ever. Leaves
  // only by throwing ListenerError, or, once request_stop() was called, by returning within about a
  // second.
  void serve_forever();

  // Hands an accepted socket to a new Request thread. Returns the thread-creation result; on
  // failure the socket is closed and the Request freed here.
  int process_request(int socket, Stats* stats, Watchdog* watchdog);

  // Makes serve_forever return promptly. For in-process tests; any thread may call it.
  void request_stop();

  // The port actually bound (useful when constructed with port 0). Valid after do_bind().
  int bound_port() const;

  Stats& stats() { return stats_; }

  // True once serve_forever has created the shared objects and entered its accept loop.
  bool serving() const { return serving_.load(); }

  unsigned int address;
  int port;
  int backlog;
  int listen_socket = -1;
  unsigned long max_buffer_size;

 private:
  // The shared objects outlive every connection thread only as long as the Webserver does;
  // the process keeps its one Webserver until it exits.
  Stats stats_;
  std::unique_ptr<Watchdog> watchdog_;
  std::atomic<bool> stop_{false};
  UniqueFd wake_;  // eventfd that interrupts the accept wait on request_stop()
  std::atomic<bool> serving_{false};
};

}  // namespace skerir
