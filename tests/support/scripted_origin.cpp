#include "support/scripted_origin.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "util/unique_fd.h"

namespace skerir::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxRequestHead = 1u << 20;
constexpr size_t kReadChunk = 64 * 1024;
// How long a half-closed connection waits for the client to close its side.
constexpr auto kDrainLimit = std::chrono::seconds(30);
// Throttled bodies go out in slices of a hundredth of a second's worth.
constexpr size_t kSlicesPerSecond = 100;

std::string reason_for(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 206:
      return "Partial Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 416:
      return "Range Not Satisfiable";
    case 500:
      return "Internal Server Error";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) {
    s.remove_suffix(1);
  }
  return std::string(s);
}

RecordedRequest parse_head(std::string head) {
  RecordedRequest rec;
  rec.head = std::move(head);
  size_t pos = 0;
  bool first = true;
  while (pos < rec.head.size()) {
    size_t eol = rec.head.find("\r\n", pos);
    if (eol == std::string::npos) eol = rec.head.size();
    const std::string line = rec.head.substr(pos, eol - pos);
    pos = eol + 2;
    if (first) {
      first = false;
      rec.request_line = line;
      const size_t sp1 = line.find(' ');
      rec.method = line.substr(0, sp1);
      if (sp1 != std::string::npos) {
        const size_t sp2 = line.find(' ', sp1 + 1);
        rec.target = line.substr(sp1 + 1, sp2 == std::string::npos ? sp2 : sp2 - sp1 - 1);
      }
      continue;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string name = lower(line.substr(0, colon));
    const std::string value = trimmed(std::string_view(line).substr(colon + 1));
    if (name == "host") rec.host = value;
    if (name == "connection") rec.connection_header = value;
    if (name == "range") rec.range = value;
  }
  return rec;
}

// Parses "bytes=N-" or "bytes=N-M". False when the header has another form.
bool parse_range(const std::string& range, size_t* first, std::optional<size_t>* last) {
  if (range.rfind("bytes=", 0) != 0) return false;
  const std::string bounds = range.substr(6);
  const size_t dash = bounds.find('-');
  if (dash == std::string::npos || dash == 0) return false;
  *first = std::strtoull(bounds.substr(0, dash).c_str(), nullptr, 10);
  const std::string tail = bounds.substr(dash + 1);
  if (!tail.empty()) *last = std::strtoull(tail.c_str(), nullptr, 10);
  return true;
}

// One connection's socket plus the origin's stop signal; every wait is cut short by the stop.
class Wire {
 public:
  Wire(int fd, int wake) : fd_(fd), wake_(wake) {}

  // 1 when `events` are ready, 0 on time-out, -1 when the origin is stopping.
  int wait(short events, int timeout_ms) const {
    for (;;) {
      pollfd p[2] = {{fd_, events, 0}, {wake_, POLLIN, 0}};
      const int r = ::poll(p, 2, timeout_ms);
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) return -1;
      if (p[1].revents != 0) return -1;
      return r > 0 ? 1 : 0;
    }
  }

  // Sleeps until `due` unless the origin stops first (false).
  bool pause_until(Clock::time_point due) const {
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
      if (left <= 0) return true;
      pollfd p{wake_, POLLIN, 0};
      const int r = ::poll(&p, 1, static_cast<int>(left));
      if (r > 0) return false;
    }
  }
  bool pause(std::chrono::milliseconds d) const { return pause_until(Clock::now() + d); }

  // Appends what arrives to *out. False at end of stream, on error, on time-out or stop.
  bool read_some(std::string* out, int timeout_ms = -1) const {
    char buf[kReadChunk];
    for (;;) {
      if (wait(POLLIN, timeout_ms) != 1) return false;
      const ssize_t n = ::read(fd_, buf, sizeof(buf));
      if (n > 0) {
        out->append(buf, static_cast<size_t>(n));
        return true;
      }
      if (n == 0) return false;
      if (errno != EAGAIN && errno != EINTR) return false;
    }
  }

  bool send_all(const char* p, size_t n) const {
    while (n > 0) {
      const ssize_t w = ::send(fd_, p, n, MSG_NOSIGNAL);
      if (w > 0) {
        p += w;
        n -= static_cast<size_t>(w);
        continue;
      }
      if (w < 0 && errno == EINTR) continue;
      if (w < 0 && errno != EAGAIN) return false;
      if (wait(POLLOUT, -1) != 1) return false;
    }
    return true;
  }

  // Sends at `rate` bytes/s (0: at once).
  bool send_paced(const char* p, size_t n, size_t rate) const {
    if (rate == 0) return send_all(p, n);
    const size_t slice = std::max<size_t>(1, rate / kSlicesPerSecond);
    const auto start = Clock::now();
    size_t sent = 0;
    while (sent < n) {
      const auto due = start + std::chrono::microseconds(
                                   static_cast<int64_t>(static_cast<double>(sent) * 1e6 / rate));
      if (!pause_until(due)) return false;
      const size_t k = std::min(slice, n - sent);
      if (!send_all(p + sent, k)) return false;
      sent += k;
    }
    return true;
  }

  // Stops sending, then discards whatever the client still sends until it closes, so that
  // the client sees an end of stream rather than a reset.
  void half_close_and_drain() const {
    ::shutdown(fd_, SHUT_WR);
    const auto deadline = Clock::now() + kDrainLimit;
    std::string sink;
    for (;;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) return;
      sink.clear();
      if (!read_some(&sink, static_cast<int>(left))) return;
    }
  }

 private:
  int fd_;
  int wake_;
};

// Sends the body with the reply's faults. False when the connection must end (a cut, an
// error, or the origin stopping).
bool send_body(const Wire& wire, std::string_view body, const Reply& reply) {
  size_t limit = body.size();
  bool cut = false;
  if (reply.close_after && *reply.close_after < limit) {
    limit = *reply.close_after;
    cut = true;
  }
  const bool stall = reply.stall_at && *reply.stall_at <= limit;
  const size_t first = stall ? *reply.stall_at : limit;
  if (!wire.send_paced(body.data(), first, reply.rate)) return false;
  if (stall) {
    if (!wire.pause(reply.stall_for)) return false;
    if (!wire.send_paced(body.data() + first, limit - first, reply.rate)) return false;
  }
  return !cut;
}

// Answers one request. Returns whether the connection stays open for the next one.
bool respond(const Wire& wire, const RecordedRequest& req, const Reply& reply) {
  if (reply.stall_before_headers.count() > 0 && !wire.pause(reply.stall_before_headers)) {
    return false;
  }
  if (reply.raw) {
    send_body(wire, *reply.raw, reply);
    return false;
  }

  int status = reply.status;
  std::string reason = reply.reason;
  std::string_view body = reply.body;
  std::string content_range;
  size_t first = 0;
  std::optional<size_t> last;
  if (status == 200 && reply.honour_range && !reply.http10 && !req.range.empty() &&
      parse_range(req.range, &first, &last)) {
    const size_t total = body.size();
    if (first >= total) {
      status = 416;
      content_range = "bytes */" + std::to_string(total);
      body = {};
    } else {
      const size_t end = std::min(last.value_or(total - 1), total - 1);
      status = 206;
      content_range = "bytes " + std::to_string(first) + "-" + std::to_string(end) + "/" +
                      std::to_string(total);
      body = body.substr(first, end + 1 - first);
    }
    reason.clear();
  }
  if (reason.empty()) reason = reason_for(status);

  const bool client_close = lower(req.connection_header) == "close";
  const bool ends = client_close || reply.http10 || !reply.content_length || reply.close ||
                    reply.close_after.has_value();
  std::string head =
      (reply.http10 ? "HTTP/1.0 " : "HTTP/1.1 ") + std::to_string(status) + " " + reason + "\r\n";
  if (!reply.http10 && reply.content_length) {
    head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  if (!content_range.empty()) head += "Content-Range: " + content_range + "\r\n";
  if (client_close) head += "Connection: close\r\n";
  for (const auto& [name, value] : reply.headers) head += name + ": " + value + "\r\n";
  head += "\r\n";

  if (!wire.send_all(head.data(), head.size())) return false;
  if (!send_body(wire, body, reply)) return false;
  return !ends;
}

}  // namespace

Reply Reply::ok(std::string body) {
  Reply r;
  r.body = std::move(body);
  return r;
}

Reply Reply::status_only(int status) {
  Reply r;
  r.status = status;
  return r;
}

Reply Reply::raw_bytes(std::string bytes) {
  Reply r;
  r.raw = std::move(bytes);
  return r;
}

std::string aes128_cbc_encrypt(const std::string& plain, const std::string& key) {
  unsigned char key_bytes[16] = {};
  std::memcpy(key_bytes, key.data(), std::min<size_t>(key.size(), sizeof(key_bytes)));
  const unsigned char iv[16] = {};
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                      &EVP_CIPHER_CTX_free);
  if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key_bytes, iv) != 1) {
    throw std::runtime_error("cannot set up AES-128-CBC");
  }
  std::string out(plain.size() + 16, '\0');
  int n1 = 0;
  int n2 = 0;
  auto* dst = reinterpret_cast<unsigned char*>(out.data());
  EVP_EncryptUpdate(ctx.get(), dst, &n1, reinterpret_cast<const unsigned char*>(plain.data()),
                    static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(ctx.get(), dst + n1, &n2);
  out.resize(static_cast<size_t>(n1 + n2));
  return out;
}

ScriptedOrigin::ScriptedOrigin() {
  UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!listener.valid() || !wake.valid()) throw std::runtime_error("origin: no socket");
  const int one = 1;
  ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sa.sin_port = 0;
  socklen_t len = sizeof(sa);
  if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 ||
      ::listen(listener.get(), 64) != 0 ||
      ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
    throw std::runtime_error("origin: cannot listen");
  }
  port_ = ntohs(sa.sin_port);
  listen_fd_ = listener.release();
  wake_fd_ = wake.release();
  acceptor_ = std::thread([this] { accept_loop(); });
}

ScriptedOrigin::~ScriptedOrigin() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t w = ::write(wake_fd_, &one, sizeof(one));
  acceptor_.join();
  std::vector<Connection> conns;
  {
    std::lock_guard lock(mutex_);
    conns.swap(connections_);
  }
  for (auto& c : conns) c.thread.join();
  ::close(listen_fd_);
  ::close(wake_fd_);
}

std::string ScriptedOrigin::authority() const { return "127.0.0.1:" + std::to_string(port_); }

std::string ScriptedOrigin::url(const std::string& path) const {
  return "http://" + authority() + path;
}

std::shared_ptr<const Reply> ScriptedOrigin::prepare(Reply reply) {
  if (!reply.encrypt_key.empty()) {
    reply.body = aes128_cbc_encrypt(reply.body, reply.encrypt_key);
    reply.encrypt_key.clear();
  }
  return std::make_shared<const Reply>(std::move(reply));
}

void ScriptedOrigin::set(const std::string& path, Reply reply) {
  auto prepared = prepare(std::move(reply));
  std::lock_guard lock(mutex_);
  scripts_[path].standing = std::move(prepared);
}

void ScriptedOrigin::push_next(const std::string& path, Reply reply, size_t times) {
  auto prepared = prepare(std::move(reply));
  std::lock_guard lock(mutex_);
  for (size_t i = 0; i < times; ++i) scripts_[path].next.push_back(prepared);
}

void ScriptedOrigin::remove(const std::string& path) {
  std::lock_guard lock(mutex_);
  scripts_.erase(path);
}

std::shared_ptr<const Reply> ScriptedOrigin::take_reply(const std::string& target) {
  static const auto not_found = [] {
    Reply r = Reply::status_only(404);
    r.body = "no script for this path";
    return std::make_shared<const Reply>(std::move(r));
  }();
  std::lock_guard lock(mutex_);
  const auto it = scripts_.find(target);
  if (it == scripts_.end()) return not_found;
  Script& script = it->second;
  if (!script.next.empty()) {
    auto reply = std::move(script.next.front());
    script.next.pop_front();
    return reply;
  }
  return script.standing ? script.standing : not_found;
}

std::vector<RecordedRequest> ScriptedOrigin::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<RecordedRequest> ScriptedOrigin::requests(const std::string& path) const {
  std::lock_guard lock(mutex_);
  std::vector<RecordedRequest> out;
  for (const auto& r : requests_) {
    if (r.target == path) out.push_back(r);
  }
  return out;
}

size_t ScriptedOrigin::request_count(const std::string& path) const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count_if(requests_.begin(), requests_.end(),
                                           [&](const auto& r) { return r.target == path; }));
}

bool ScriptedOrigin::wait_for_requests(const std::string& path, size_t n,
                                       std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return static_cast<size_t>(std::count_if(requests_.begin(), requests_.end(),
                                             [&](const auto& r) { return r.target == path; })) >= n;
  });
}

size_t ScriptedOrigin::connections_accepted() const {
  std::lock_guard lock(mutex_);
  return accepted_;
}

size_t ScriptedOrigin::connections_open() const {
  std::lock_guard lock(mutex_);
  return open_;
}

bool ScriptedOrigin::wait_for_no_connections(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return open_ == 0; });
}

void ScriptedOrigin::accept_loop() {
  for (;;) {
    pollfd p[2] = {{listen_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
    const int r = ::poll(p, 2, -1);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0 || p[1].revents != 0) return;
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EMFILE || errno == ENFILE) {
        pollfd w{wake_fd_, POLLIN, 0};
        if (::poll(&w, 1, 10) > 0) return;  // out of descriptors: back off, not spin
      }
      continue;
    }
    const int one = 1;
    // Header and body go out in separate sends; without this a small body can wait for a
    // delayed acknowledgement.
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));

    std::vector<std::thread> finished;
    {
      std::lock_guard lock(mutex_);
      const size_t id = accepted_++;
      ++open_;
      auto done = std::make_shared<bool>(false);
      for (auto it = connections_.begin(); it != connections_.end();) {
        if (*it->done) {
          finished.push_back(std::move(it->thread));
          it = connections_.erase(it);
        } else {
          ++it;
        }
      }
      connections_.push_back(
          {std::thread([this, fd, id, done] { serve_connection(fd, id, done); }), done});
    }
    changed_.notify_all();
    for (auto& t : finished) t.join();
  }
}

void ScriptedOrigin::serve_connection(int fd, size_t id, std::shared_ptr<bool> done) {
  {
    UniqueFd owned(fd);
    const Wire wire(fd, wake_fd_);
    std::string pending;
    for (bool keep = true; keep;) {
      size_t end = std::string::npos;
      while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
        if (pending.size() > kMaxRequestHead || !wire.read_some(&pending)) {
          keep = false;
          break;
        }
      }
      if (!keep) break;
      RecordedRequest rec = parse_head(pending.substr(0, end + 4));
      pending.erase(0, end + 4);
      rec.connection = id;
      {
        std::lock_guard lock(mutex_);
        rec.order = requests_.size();
        requests_.push_back(rec);
      }
      changed_.notify_all();
      const std::shared_ptr<const Reply> reply = take_reply(rec.target);
      keep = respond(wire, rec, *reply);
    }
    wire.half_close_and_drain();
  }
  {
    std::lock_guard lock(mutex_);
    --open_;
    *done = true;
  }
  changed_.notify_all();
}

RefusingPort::RefusingPort() {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(sa);
  if (!fd.valid() || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
    throw std::runtime_error("cannot reserve a port");
  }
  port_ = ntohs(sa.sin_port);
  fd_ = fd.release();
}

RefusingPort::~RefusingPort() { ::close(fd_); }

UnansweredPort::UnansweredPort() {
  UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(sa);
  if (!listener.valid() ||
      ::bind(listener.get(), reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 ||
      ::listen(listener.get(), 0) != 0 ||
      ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
    throw std::runtime_error("cannot listen");
  }
  // A backlog of 0 still queues one connection; this one fills the queue and is never
  // accepted.
  UniqueFd filler(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!filler.valid() ||
      ::connect(filler.get(), reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
    throw std::runtime_error("cannot fill the accept queue");
  }
  port_ = ntohs(sa.sin_port);
  listen_fd_ = listener.release();
  filler_fd_ = filler.release();
}

UnansweredPort::~UnansweredPort() {
  ::close(filler_fd_);
  ::close(listen_fd_);
}

}  // namespace skerir::test
