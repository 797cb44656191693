// The listening side of the server: binds its addresses, creates the process-wide objects
// every connection shares, and accepts connections on the calling thread from every listening
// socket in one poll() loop, handing each one to a Request on a detached thread of its own.
// The accepting thread never reads or writes a client socket.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "main/listen_address.h"
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
  // One IPv4 listener; `address` in host byte order.
  Webserver(unsigned int address, int port, int backlog, unsigned long max_buffer_size);
  // One listener per address, in order.
  Webserver(std::vector<ListenAddress> addresses, int backlog, unsigned long max_buffer_size);
  ~Webserver();

  // Creates, configures, binds and listens on every address; an IPv6 socket takes IPv6 only,
  // so "[::]" and "0.0.0.0" can both be bound. Throws ListenerError at the first failure.
  void do_bind();

  // Binds (unless do_bind() already ran), creates the shared objects, then accepts for ever. Leaves
  // only by throwing ListenerError, or, once request_stop() was called or the descriptor given to
  // stop_when_readable() became readable, by returning promptly with the listeners closed.
  void serve_forever();

  // Makes serve_forever return when `fd` becomes readable (the stop signals). Call before
  // serve_forever; the caller keeps `fd` open and reads it.
  void stop_when_readable(int fd) { stop_fd_ = fd; }

  // Hands an accepted socket to a new Request thread. Returns the thread-creation result; on
  // failure the socket is closed and the Request freed here.
  int process_request(int socket, Stats* stats, Watchdog* watchdog);

  // Makes serve_forever return promptly. For in-process tests; any thread may call it.
  void request_stop();

  // The port actually bound by the first listener (useful when constructed with port 0).
  // Valid after do_bind().
  int bound_port() const;

  Stats& stats() { return stats_; }

  // True once serve_forever has created the shared objects and entered its accept loop.
  bool serving() const { return serving_.load(); }

  unsigned int address;  // of the IPv4 constructor; 0 otherwise
  int port;              // of the first address
  int backlog;
  int listen_socket = -1;  // the first listener
  unsigned long max_buffer_size;
  std::string map_token;  // see Request::map_token; set before serve_forever

 private:
  // Accepts one connection from `listener` and hands it on. Throws ListenerError.
  void accept_one(int listener, const timeval& client_timeout);

  // The shared objects outlive every connection thread only as long as the Webserver does;
  // the process keeps its one Webserver until it exits.
  Stats stats_;
  std::unique_ptr<Watchdog> watchdog_;
  std::vector<ListenAddress> addresses_;
  std::vector<UniqueFd> listeners_;  // one per address, in order, once bound
  std::atomic<bool> stop_{false};
  UniqueFd wake_;     // eventfd that interrupts the accept wait on request_stop()
  int stop_fd_ = -1;  // not owned
  std::atomic<bool> serving_{false};
};

}  // namespace skerir
