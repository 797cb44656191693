// A scripted HTTP/1.1 origin on 127.0.0.1 (ephemeral port) that plays upstream for tests and
// benchmarks: each path has a standing reply and optionally a queue of one-shot replies served
// first (fault injection: "the next two requests stall"), every request is recorded, and
// replies can carry faults (stalls, cuts, throttling, garbage, missing lengths).
//
// Threads: one accept thread and one thread per connection, so a stalled connection never
// holds up another. All public methods are thread-safe and may be called while requests are
// being served (a live playlist is a path whose reply a test replaces as it goes). The
// destructor wakes every stalled or throttled connection, closes them and joins all threads.
//
// Connections are kept alive between requests unless the request says "Connection: close" or
// the reply ends its connection (HTTP/1.0, no Content-Length, `close`, `close_after`, `raw`).
// Ending a connection is a graceful half-close: the origin stops sending and then reads and
// discards until the client closes, so a client that writes into it sees an end of stream
// rather than a reset.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace skerir::test {

struct Reply {
  int status = 200;
  std::string reason;  // empty: the usual phrase for `status`
  std::string body;
  // Extra header lines, sent in order after the generated ones.
  std::vector<std::pair<std::string, std::string>> headers;

  bool http10 = false;         // "HTTP/1.0" status line, no Content-Length, close after the body
  bool content_length = true;  // false: HTTP/1.1 without Content-Length, close after the body
  bool honour_range = true;    // a 200 answers "Range: bytes=N-" with 206 and Content-Range
  std::string encrypt_key;     // non-empty: serve AES-128-CBC(body), zero IV, PKCS#7
  std::optional<std::string> raw;  // sent verbatim instead of a whole reply; then close

  std::chrono::milliseconds stall_before_headers{0};
  std::optional<size_t> stall_at;  // pause for `stall_for` after this many body bytes
  std::chrono::milliseconds stall_for{0};
  std::optional<size_t> close_after;  // end the connection after this many body bytes
  bool close = false;                 // end the connection after this reply
  size_t rate = 0;                    // body bytes per second; 0: as fast as possible

  // Shorthands for the common cases.
  static Reply ok(std::string body);
  static Reply status_only(int status);
  static Reply raw_bytes(std::string bytes);
};

struct RecordedRequest {
  size_t order = 0;       // arrival order over the whole origin, from 0
  size_t connection = 0;  // number of the connection it came on, from 0
  std::string head;       // the request bytes up to and including the blank line
  std::string request_line;
  std::string method;
  std::string target;  // path and query as sent; the key scripts are looked up by
  std::string host;    // header values, "" when absent
  std::string connection_header;
  std::string range;
};

class ScriptedOrigin {
 public:
  ScriptedOrigin();
  ~ScriptedOrigin();
  ScriptedOrigin(const ScriptedOrigin&) = delete;
  ScriptedOrigin& operator=(const ScriptedOrigin&) = delete;

  int port() const { return port_; }
  std::string authority() const;                   // "127.0.0.1:<port>"
  std::string url(const std::string& path) const;  // "http://127.0.0.1:<port>" + path

  // Replaces the standing reply of `path` (used once the queued replies are gone). A path
  // without any script answers 404.
  void set(const std::string& path, Reply reply);
  // Queues `reply` to be served `times` times before anything queued later and before the
  // standing reply.
  void push_next(const std::string& path, Reply reply, size_t times = 1);
  // Forgets the standing reply and the queue of `path`.
  void remove(const std::string& path);

  std::vector<RecordedRequest> requests() const;
  std::vector<RecordedRequest> requests(const std::string& path) const;
  size_t request_count(const std::string& path) const;
  // Waits until at least `n` requests for `path` have arrived; false on time-out.
  bool wait_for_requests(const std::string& path, size_t n,
                         std::chrono::milliseconds timeout) const;

  size_t connections_accepted() const;
  size_t connections_open() const;
  // Waits until every accepted connection has been closed; false on time-out.
  bool wait_for_no_connections(std::chrono::milliseconds timeout) const;

 private:
  struct Script {
    std::deque<std::shared_ptr<const Reply>> next;
    std::shared_ptr<const Reply> standing;
  };
  struct Connection {
    std::thread thread;
    std::shared_ptr<bool> done;  // guarded by mutex_
  };

  void accept_loop();
  void serve_connection(int fd, size_t id, std::shared_ptr<bool> done);
  std::shared_ptr<const Reply> take_reply(const std::string& target);
  static std::shared_ptr<const Reply> prepare(Reply reply);

  int listen_fd_ = -1;
  int wake_fd_ = -1;  // readable once the origin is stopping
  int port_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<std::string, Script> scripts_;
  std::vector<RecordedRequest> requests_;
  std::vector<Connection> connections_;
  size_t accepted_ = 0;
  size_t open_ = 0;

  std::thread acceptor_;
};

// AES-128-CBC with a zero IV and PKCS#7 padding, as HLS segments are encrypted. `key` must
// hold 16 bytes.
std::string aes128_cbc_encrypt(const std::string& plain, const std::string& key);

// A TCP port on 127.0.0.1 that refuses connections: bound but not listening, so no other
// program can take it while the object lives.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

// A TCP port on 127.0.0.1 whose connects never complete, like a server that has gone silent:
// it listens with an accept queue that one held connection already fills, so the kernel drops
// every further connection request.
class UnansweredPort {
 public:
  UnansweredPort();
  ~UnansweredPort();
  UnansweredPort(const UnansweredPort&) = delete;
  UnansweredPort& operator=(const UnansweredPort&) = delete;
  int port() const { return port_; }

 private:
  int listen_fd_ = -1;
  int filler_fd_ = -1;
  int port_ = 0;
};

}  // namespace skerir::test
