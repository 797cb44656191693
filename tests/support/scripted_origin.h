// A scripted HTTP/1.1 origin on loopback (ephemeral port): each path has a standing reply and
// optionally a queue of one-shot replies served first; every request is recorded; replies
// carry faults (stalls, cuts, throttling, garbage, lying lengths). It listens on 127.0.0.1 or
// ::1, plain or TLS with a self-signed certificate in tls/: the trusted one, which
// SSL_CERT_FILE names for the whole test process, or the untrusted one, in no trust store.
// Threads: one accept thread and one per connection; public methods are thread-safe. The
// destructor wakes every stalled connection and joins all threads. Connections stay open
// unless the request says "Connection: close" or the reply ends its connection.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace skerir::test {

struct Reply {
  int status = 200;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  // after the generated ones
  std::optional<size_t> length;    // announced instead of the body's; the body repeats to fill it
  std::string encrypt_key;         // serve AES-128-CBC(body), zero IV, PKCS#7
  std::optional<std::string> raw;  // sent verbatim instead of a reply, then close
  std::chrono::milliseconds stall_before_headers{0};
  std::optional<size_t> stall_at;  // pause for `stall_for` after this many body bytes
  std::chrono::milliseconds stall_for{0};
  std::optional<size_t> close_after;  // end the connection after this many body bytes
  size_t rate = 0;                    // bytes per second, headers included; 0: at once
  bool chunked = false;  // "Transfer-Encoding: chunked", in chunks of 3 and 8191 bytes with
                         // extensions and a trailer

  static Reply ok(std::string body);
  static Reply with_status(int code);
  static Reply redirect(int code, std::string location);
};

struct RecordedRequest {
  size_t connection = 0;  // number of the connection it came on, from 0
  std::string head;       // the request bytes up to and including the blank line
  std::string target, range;
  bool resumed = false;  // the TLS session of its connection was resumed
  std::string sni;       // the server name its TLS client sent; "" for none
};

enum class Tls { none, trusted, untrusted };

class ScriptedOrigin {
 public:
  explicit ScriptedOrigin(bool ipv6 = false, Tls tls = Tls::none);  // 127.0.0.1, or ::1
  ~ScriptedOrigin();

  int port() const { return port_; }
  std::string authority() const;                   // "127.0.0.1:<port>" or "[::1]:<port>"
  std::string url(const std::string& path) const;  // "http(s)://" + authority() + path

  // The standing reply of `path`; a path without one answers 404.
  void set(const std::string& path, Reply reply);
  // Serves `reply` `times` times before the standing reply.
  void push_next(const std::string& path, Reply reply, size_t times = 1);

  std::vector<RecordedRequest> requests(const std::string& path = "") const;  // "": all
  bool wait_for_requests(const std::string& path, size_t n, std::chrono::milliseconds timeout);
  bool wait_for_no_connections(std::chrono::milliseconds timeout) const;

 private:
  struct Script {
    std::deque<std::shared_ptr<const Reply>> next;
    std::shared_ptr<const Reply> standing;
  };
  void accept_loop();
  void serve(int fd, size_t id, bool* done);
  std::shared_ptr<const Reply> take(const std::string& target);

  bool ipv6_;
  Tls tls_;
  int listen_fd_ = -1, wake_fd_ = -1, port_ = 0;  // wake_fd_ is readable once stopping
  mutable std::mutex mutex_;                      // guards what follows
  mutable std::condition_variable changed_;
  std::map<std::string, Script> scripts_;
  std::vector<RecordedRequest> requests_;
  std::vector<std::pair<std::thread, std::unique_ptr<bool>>> threads_;  // with their done flags
  size_t accepted_ = 0, open_ = 0;
  std::thread acceptor_;
};

}  // namespace skerir::test
