// TLS for https upstream connections: one client session over a connected TCP socket.
//
// All sessions come from one process-wide client context, made on first use and kept for the
// life of the process (detached stream threads may use it until the very end): OpenSSL's
// default trust store (so SSL_CERT_FILE and SSL_CERT_DIR work), TLS 1.2 or newer, ALPN
// "http/1.1". Each channel names its host for SNI and verifies the certificate against it (the
// IP address, for a literal). Sessions are kept per host:port in a small process-wide cache under
// `session_mutex`, so repeated "Connection: close" playlist fetches resume instead of running a
// full handshake each time.
//
// Failures (handshake, certificate, a fatal alert, a close without close_notify) are logged
// here as one standard-error line "TLS: " + OpenSSL's reason (+ the verification detail) +
// " (host:port)", once per channel; callers treat them as a failed attempt or a cut body.
//
// Ownership: a channel owns its SSL object but not the socket; Connection frees the channel
// before it closes the socket. One thread at a time per channel; the context and the session
// cache may be used from any thread. OpenSSL writes with write(2), so the process must ignore
// SIGPIPE (skerir does from its start).
#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <string>

namespace skerir {

class TlsChannel {
 public:
  // Runs the handshake over the connected socket `fd` for `host` (a name or an IP literal,
  // without brackets) and `port`, within `timeout_ms`. Null after logging the reason. Leaves
  // `fd` non-blocking: every later wait is a poll() of its own.
  static std::unique_ptr<TlsChannel> connect(int fd, const std::string& host, int port,
                                             int timeout_ms);
  // Sends close_notify (without waiting) when the session is still sound, so that it stays
  // resumable, then frees it.
  ~TlsChannel();
  TlsChannel(const TlsChannel&) = delete;
  TlsChannel& operator=(const TlsChannel&) = delete;

  // The plain read's contract: up to `len` bytes (as many as are ready without waiting once some
  // have arrived), 0 at the end of the stream (close_notify, or a close without it, which is
  // logged), -1 on a TLS or socket error (logged), -2 when nothing arrived within `timeout_ms`.
  long read(char* buf, unsigned long len, int timeout_ms);
  // Writes all `n` bytes within `timeout_ms`: `n`, -1 on an error (logged), -2 on a time-out.
  // After the peer's close the bytes are dropped and `n` returned, as a half-closed TCP socket
  // takes them: the close shows at the next read.
  long write(const char* data, size_t n, int timeout_ms);

 private:
  struct SslFree {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };
  // closed: close_notify came; cut: the peer closed without it; failed: any other error.
  enum class Status { open, closed, cut, failed };

  TlsChannel(int fd, std::string peer) : fd_(fd), peer_(std::move(peer)) {}
  // Logs the "TLS: " line for the failed SSL call's `ssl_error` and the error queue, marks
  // the channel failed (no close_notify) and drops the peer's cached session.
  void fail(int ssl_error);
  // Waits until the socket is ready for what the last SSL call wanted (SSL_ERROR_WANT_READ or
  // _WRITE) or `deadline` passes; false on a time-out.
  bool wait_for(int ssl_error, std::chrono::steady_clock::time_point deadline) const;

  int fd_;
  std::string peer_;  // "host:port": the session cache's key, the name in log lines, and the
                      // SSL's app data (the new-session callback's key)
  std::unique_ptr<SSL, SslFree> ssl_;
  Status status_ = Status::open;
};

}  // namespace skerir
