#include "support/scripted_origin.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace skerir::test {
namespace {

using Clock = std::chrono::steady_clock;

std::string header_value(const std::string& head, std::string name) {
  std::string lower = head;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  size_t at = lower.find("\r\n" + name + ":");
  if (at == std::string::npos) return "";
  at = head.find_first_not_of(' ', at + 3 + name.size());
  return head.substr(at, head.find("\r\n", at) - at);
}

// A server context with the committed self-signed certificate `name` (tls/<name>.crt, valid
// for 127.0.0.1, ::1 and localhost until 2120).
SSL_CTX* make_server_context(const std::string& name) {
  const std::string base = SKERIR_TEST_CERTS "/" + name;
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  if (SSL_CTX_use_certificate_file(ctx, (base + ".crt").c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_use_PrivateKey_file(ctx, (base + ".key").c_str(), SSL_FILETYPE_PEM) != 1)
    throw std::runtime_error("origin: cannot load " + base);
  SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return ctx;
}

// The two server contexts, made when the test program starts: setenv is only safe before
// any other thread runs, and the client context reads SSL_CERT_FILE on its first use.
struct ServerContexts {
  SSL_CTX* trusted;
  SSL_CTX* untrusted;
  ServerContexts() {
    std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes with write(2), on both sides
    trusted = make_server_context("trusted");
    untrusted = make_server_context("untrusted");
    ::setenv("SSL_CERT_FILE", SKERIR_TEST_CERTS "/trusted.crt", 1);
  }
  ~ServerContexts() {
    SSL_CTX_free(trusted);
    SSL_CTX_free(untrusted);
  }
} const server_contexts;

SSL_CTX* server_context(Tls tls) {
  return tls == Tls::trusted ? server_contexts.trusted : server_contexts.untrusted;
}

// One connection's socket (and TLS session) and the origin's stop signal: every wait ends when
// the origin stops.
struct Wire {
  int fd, wake;
  SSL* ssl = nullptr;

  bool wait(short events) const {
    pollfd p[2] = {{fd, events, 0}, {wake, POLLIN, 0}};
    while (::poll(p, 2, -1) < 0 && errno == EINTR) {
    }
    return p[1].revents == 0 && p[0].revents != 0;
  }
  bool pause(Clock::duration d) const {
    pollfd p{wake, POLLIN, 0};
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(d).count();
    return ms <= 0 || ::poll(&p, 1, static_cast<int>(ms)) == 0;
  }
  // What to wait for before calling again after result `r`; 0 when the call failed for good.
  short retry(long r, short plain) const {
    if (ssl == nullptr) return r < 0 && errno == EAGAIN ? plain : 0;
    const int e = SSL_get_error(ssl, static_cast<int>(r));
    return e == SSL_ERROR_WANT_READ ? POLLIN : e == SSL_ERROR_WANT_WRITE ? POLLOUT : 0;
  }
  bool read_some(std::string* out) const {
    char buf[4096];
    for (;;) {
      const long n = ssl ? SSL_read(ssl, buf, sizeof(buf)) : ::read(fd, buf, sizeof(buf));
      if (n > 0) return out->append(buf, static_cast<size_t>(n)), true;
      if (const short events = retry(n, POLLIN); events == 0 || !wait(events)) return false;
    }
  }
  bool send_all(const char* p, size_t n) const {
    while (n > 0) {
      const long w = ssl ? SSL_write(ssl, p, static_cast<int>(n)) : ::send(fd, p, n, MSG_NOSIGNAL);
      if (w > 0) {
        p += w, n -= static_cast<size_t>(w);
      } else if (const short events = retry(w, POLLOUT); events == 0 || !wait(events)) {
        return false;
      }
    }
    return true;
  }
  bool handshake() const {
    for (int r; (r = SSL_accept(ssl)) != 1;) {
      if (const short events = retry(r, POLLIN); events == 0 || !wait(events)) return false;
    }
    return true;
  }
};

// Sends `head`, then `total` bytes of `body` repeated, with the reply's pacing, stall and cut.
// True when all of it went out.
bool send_paced(const Wire& wire, const Reply& r, const std::string& head, const std::string& body,
                uint64_t total) {
  const auto start = Clock::now();
  uint64_t sent = 0;
  auto put = [&](const char* p, size_t n) {
    for (size_t k; n > 0; p += k, n -= k, sent += k) {
      k = std::min(n, r.rate ? std::max<size_t>(1, r.rate / 100) : size_t{1} << 16);
      if (r.rate &&
          !wire.pause(start + std::chrono::microseconds(sent * 1000000 / r.rate) - Clock::now())) {
        return false;
      }
      if (!wire.send_all(p, k)) return false;
    }
    return true;
  };
  if (!put(head.data(), head.size())) return false;
  const uint64_t limit = std::min<uint64_t>(total, r.close_after.value_or(total));
  for (uint64_t pos = 0, n; pos < limit && !body.empty(); pos += n) {
    n = std::min<uint64_t>({limit - pos, body.size() - pos % body.size(), 1 << 16});
    if (r.stall_at && pos < *r.stall_at) n = std::min<uint64_t>(n, *r.stall_at - pos);
    if (r.stall_at && pos == *r.stall_at && !wire.pause(r.stall_for)) return false;
    if (!put(body.data() + pos % body.size(), n)) return false;
  }
  return limit == total;
}

// Answers one request; true when the connection stays open.
bool respond(const Wire& wire, const std::string& request, const Reply& r) {
  if (!wire.pause(r.stall_before_headers)) return false;
  if (r.raw) {
    send_paced(wire, r, *r.raw, "", 0);
    return false;
  }
  int status = r.status;
  std::string body = r.body, head;
  const std::string range = header_value(request, "range");
  if (status == 200 && range.starts_with("bytes=")) {
    char* end = nullptr;
    const size_t from = std::strtoull(range.c_str() + 6, &end, 10);
    const size_t last = std::min<size_t>(
        body.size() - 1, end[1] ? std::strtoull(end + 1, nullptr, 10) : body.size() - 1);
    if (from <= last && from < body.size()) {
      status = 206;
      head = "Content-Range: bytes " + std::to_string(from) + "-" + std::to_string(last) + "/" +
             std::to_string(body.size()) + "\r\n";
      body = body.substr(from, last + 1 - from);
    }
  }
  if (r.chunked) {
    std::string framed;
    for (size_t at = 0, n, k = 0; at < body.size(); at += n, ++k) {
      n = std::min<size_t>(body.size() - at, k % 2 ? 8191 : 3);
      char line[40];
      std::snprintf(line, sizeof(line), "%zx;k=%zu\r\n", n, k);
      framed += line + body.substr(at, n) + "\r\n";
    }
    body = framed + "0\r\nX-Trailer: t\r\n\r\n";
    head += "Transfer-Encoding: chunked\r\n";
  }
  const uint64_t total = r.length.value_or(body.size());
  if (!r.chunked) head += "Content-Length: " + std::to_string(total) + "\r\n";
  for (const auto& [name, value] : r.headers) head += name + ": " + value + "\r\n";
  head = "HTTP/1.1 " + std::to_string(status) + (status < 300 ? " OK\r\n" : " Status\r\n") + head +
         "\r\n";
  return send_paced(wire, r, head, body, total) && !r.close_after &&
         header_value(request, "connection") != "close";
}

// AES-128-CBC with a zero IV and PKCS#7 padding, as HLS segments are encrypted.
std::string aes128_cbc_encrypt(const std::string& plain, const std::string& key) {
  const unsigned char iv[16] = {};
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                      &EVP_CIPHER_CTX_free);
  EVP_EncryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr,
                     reinterpret_cast<const unsigned char*>(key.data()), iv);
  std::string out(plain.size() + 16, '\0');
  int n1 = 0, n2 = 0;
  auto* dst = reinterpret_cast<unsigned char*>(out.data());
  EVP_EncryptUpdate(ctx.get(), dst, &n1, reinterpret_cast<const unsigned char*>(plain.data()),
                    static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(ctx.get(), dst + n1, &n2);
  out.resize(static_cast<size_t>(n1 + n2));
  return out;
}

}  // namespace

Reply Reply::ok(std::string body) { return Reply{.body = std::move(body)}; }
Reply Reply::with_status(int code) { return Reply{.status = code}; }
Reply Reply::redirect(int code, std::string location) {
  return Reply{.status = code, .body = "moved", .headers = {{"Location", std::move(location)}}};
}

ScriptedOrigin::ScriptedOrigin(bool ipv6, Tls tls) : ipv6_(ipv6), tls_(tls) {
  sockaddr_in6 sa6{.sin6_family = AF_INET6, .sin6_addr = in6addr_loopback};
  sockaddr_in sa4{.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
  auto* sa = ipv6 ? reinterpret_cast<sockaddr*>(&sa6) : reinterpret_cast<sockaddr*>(&sa4);
  socklen_t len = ipv6 ? sizeof(sa6) : sizeof(sa4);
  listen_fd_ = ::socket(sa->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (::bind(listen_fd_, sa, len) != 0 || ::listen(listen_fd_, 128) != 0 ||
      ::getsockname(listen_fd_, sa, &len) != 0) {
    throw std::runtime_error("origin: cannot listen");
  }
  port_ = ntohs(ipv6 ? sa6.sin6_port : sa4.sin_port);
  acceptor_ = std::thread([this] { accept_loop(); });
}

ScriptedOrigin::~ScriptedOrigin() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t w = ::write(wake_fd_, &one, sizeof(one));
  acceptor_.join();
  for (auto& t : threads_) t.first.join();
  ::close(listen_fd_);
  ::close(wake_fd_);
}

std::string ScriptedOrigin::authority() const {
  return (ipv6_ ? "[::1]:" : "127.0.0.1:") + std::to_string(port_);
}

std::string ScriptedOrigin::url(const std::string& path) const {
  return (tls_ == Tls::none ? "http://" : "https://") + authority() + path;
}

void ScriptedOrigin::set(const std::string& path, Reply reply) {
  push_next(path, std::move(reply), 0);
}

void ScriptedOrigin::push_next(const std::string& path, Reply reply, size_t times) {
  if (!reply.encrypt_key.empty()) reply.body = aes128_cbc_encrypt(reply.body, reply.encrypt_key);
  auto shared = std::make_shared<const Reply>(std::move(reply));
  std::lock_guard lock(mutex_);
  if (times == 0) scripts_[path].standing = shared;
  for (size_t i = 0; i < times; ++i) scripts_[path].next.push_back(shared);
}

std::shared_ptr<const Reply> ScriptedOrigin::take(const std::string& target) {
  static const auto not_found = std::make_shared<const Reply>(Reply::with_status(404));
  std::lock_guard lock(mutex_);
  Script& s = scripts_[target];
  if (s.next.empty()) return s.standing ? s.standing : not_found;
  auto reply = s.next.front();
  s.next.pop_front();
  return reply;
}

std::vector<RecordedRequest> ScriptedOrigin::requests(const std::string& path) const {
  std::lock_guard lock(mutex_);
  std::vector<RecordedRequest> out;
  std::copy_if(requests_.begin(), requests_.end(), std::back_inserter(out),
               [&](const auto& r) { return path.empty() || r.target == path; });
  return out;
}

bool ScriptedOrigin::wait_for_requests(const std::string& path, size_t n,
                                       std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return std::count_if(requests_.begin(), requests_.end(),
                         [&](const auto& r) { return r.target == path; }) >= static_cast<long>(n);
  });
}

bool ScriptedOrigin::wait_for_no_connections(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return open_ == 0; });
}

void ScriptedOrigin::accept_loop() {
  while (Wire{listen_fd_, wake_fd_}.wait(POLLIN)) {
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) continue;
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    std::lock_guard lock(mutex_);
    // Reap finished connections so that a long test does not pile up exited threads.
    std::erase_if(threads_, [](auto& t) { return *t.second && (t.first.join(), true); });
    ++open_;
    auto done = std::make_unique<bool>(false);
    threads_.emplace_back(std::thread(&ScriptedOrigin::serve, this, fd, accepted_++, done.get()),
                          std::move(done));
  }
}

void ScriptedOrigin::serve(int fd, size_t id, bool* done) {
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl(
      tls_ == Tls::none ? nullptr : SSL_new(server_context(tls_)), &SSL_free);
  const Wire wire{fd, wake_fd_, ssl.get()};
  const bool ready = !ssl || (SSL_set_fd(ssl.get(), fd) && wire.handshake());
  std::string pending;
  for (size_t end; ready;) {
    while ((end = pending.find("\r\n\r\n")) == std::string::npos && pending.size() < (1 << 20) &&
           wire.read_some(&pending)) {
    }
    if (end == std::string::npos) break;
    RecordedRequest rec{id, pending.substr(0, end + 4)};
    pending.erase(0, end + 4);
    const size_t sp = rec.head.find(' ');
    rec.target = rec.head.substr(sp + 1, rec.head.find(' ', sp + 1) - sp - 1);
    rec.range = header_value(rec.head, "range");
    rec.resumed = ssl && SSL_session_reused(ssl.get());
    const char* sni = ssl ? SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name) : nullptr;
    rec.sni = sni != nullptr ? sni : "";
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(rec);
      changed_.notify_all();
    }
    if (!respond(wire, rec.head, *take(rec.target))) break;
  }
  // Half-closes (after close_notify), then discards what the client still sends until it
  // closes, so that the client reads an end of stream rather than a reset.
  if (ssl && SSL_is_init_finished(ssl.get())) SSL_shutdown(ssl.get());
  ::shutdown(fd, SHUT_WR);
  for (std::string sink; sink.size() < (1 << 20) && wire.read_some(&sink);) {
  }
  ::close(fd);
  std::lock_guard lock(mutex_);
  --open_;
  *done = true;
  changed_.notify_all();
}

}  // namespace skerir::test
