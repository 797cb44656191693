// The byte stream of one upstream connection: a TCP socket, and for https the TLS channel over
// it. UCurl's send and receive code goes through read() and send() whatever the transport, so
// keep-alive, Range resumption and decryption work the same over both.
//
// Ownership: owns the socket and the channel; the channel is shut down and freed before the
// socket is closed. One thread at a time (the owning UCurl's).
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "util/unique_fd.h"

namespace skerir {

class TlsChannel;

// Sets (setnonblock) or clears (setblock) O_NONBLOCK on `fd`. Returns the result of the
// F_SETFL call.
int setnonblock(int fd);
int setblock(int fd);

// Waits until `fd` is ready for `events` or `timeout_ms` has passed, restarting after a
// signal with the time that is left. Returns poll()'s count: exactly 1 means ready (readiness
// includes an error or hang-up on the socket, which the following read or write reports).
// Under a WaitLimit that is reached, returns 0 within kWaitSliceMs as if the time ran out.
int poll_one(int fd, short events, int timeout_ms);

inline constexpr int kWaitSliceMs = 100;

// Cuts the calling thread's upstream waits short while it lives: once `*stop` is set (the
// stream is ending) or `deadline` has passed (a fetch that took too long, whatever the upstream
// does: a header block or a body dripping a byte a second never trips a per-read time-out),
// every wait returns as if its time-out had expired and the client gives up its retries.
// Scopes nest, and every scope of the thread applies.
class WaitLimit {
 public:
  using Clock = std::chrono::steady_clock;
  explicit WaitLimit(const std::atomic<bool>* stop,
                     Clock::time_point deadline = Clock::time_point::max());
  ~WaitLimit();
  WaitLimit(const WaitLimit&) = delete;
  WaitLimit& operator=(const WaitLimit&) = delete;

  // Why the calling thread's waits are cut short ("the stream is ending", "it took too
  // long"); null while they are not.
  static const char* reached();
  // Sleeps `duration`, or less once a limit is reached.
  static void sleep(std::chrono::milliseconds duration);

 private:
  const std::atomic<bool>* stop_;
  Clock::time_point deadline_;
  WaitLimit* outer_;
};

class Connection {
 public:
  Connection();
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool valid() const { return fd_.valid(); }
  int get() const { return fd_.get(); }
  bool secure() const { return tls_ != nullptr; }
  // Ends the TLS channel if there is one, closes the socket, and takes `fd` (plain) instead.
  void reset(int fd = -1);

  // Runs the TLS handshake over the connected socket (see TlsChannel::connect); from then on
  // read and send go through TLS. False after logging its "TLS: " line; the socket stays open
  // for the caller to close.
  bool start_tls(const std::string& host, int port, int timeout_ms);

  // One read of at most `len` bytes after waiting up to `timeout_ms` for data: the byte count,
  // 0 at the end of the stream, -1 on an error (errno kept for a plain socket), -2 when nothing
  // arrived in time or there is no connection.
  long read(char* buf, unsigned long len, int timeout_ms);
  // Plain: one send once the socket is writable within `timeout_ms` (a short write is not
  // retried: requests are a few hundred bytes). TLS: all of it within `timeout_ms`. The count
  // written, -1 on an error, -2 when the socket did not become writable in time.
  long send(const char* data, size_t n, int timeout_ms);

 private:
  UniqueFd fd_;
  std::unique_ptr<TlsChannel> tls_;  // null for plain http
};

}  // namespace skerir
