#include "upstream/tls.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "upstream/connection.h"
#include "util/log.h"

namespace skerir {
namespace {

using Clock = std::chrono::steady_clock;

// Cached sessions, one per host:port; at the bound an arbitrary one makes room.
constexpr size_t kMaxCachedSessions = 256;
constexpr unsigned char kAlpnHttp11[] = {8, 'h', 't', 't', 'p', '/', '1', '.', '1'};

int on_new_session(SSL* ssl, SSL_SESSION* session);

struct SslCtxFree {
  void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
struct SslSessionFree {
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};

// The process-wide client context and session cache.
class TlsClientContext {
 public:
  // Null when OpenSSL could not make the context (the reason is in the error queue).
  SSL_CTX* get() const { return ctx_.get(); }

  // Offers the cached session for `peer`, if any, to `ssl`.
  void resume(SSL* ssl, const std::string& peer) {
    std::lock_guard lock(session_mutex);
    const auto it = sessions_.find(peer);
    // SSL_set_session takes a reference of its own.
    if (it != sessions_.end() && SSL_SESSION_is_resumable(it->second.get())) {
      SSL_set_session(ssl, it->second.get());
    }
  }
  // Takes over the reference to `session`.
  void store(const std::string& peer, SSL_SESSION* session) {
    std::unique_ptr<SSL_SESSION, SslSessionFree> owned(session);
    std::lock_guard lock(session_mutex);
    if (sessions_.size() >= kMaxCachedSessions && !sessions_.contains(peer)) {
      sessions_.erase(sessions_.begin());
    }
    sessions_[peer] = std::move(owned);
  }
  void forget(const std::string& peer) {
    std::lock_guard lock(session_mutex);
    sessions_.erase(peer);
  }

  static TlsClientContext& instance();

 private:
  TlsClientContext();

  std::unique_ptr<SSL_CTX, SslCtxFree> ctx_;  // constant after construction
  std::mutex session_mutex;                   // guards sessions_
  std::map<std::string, std::unique_ptr<SSL_SESSION, SslSessionFree>> sessions_;
};

TlsClientContext& TlsClientContext::instance() {
  // Never destroyed: detached stream threads may hold sessions until the process ends.
  static TlsClientContext* const context = new TlsClientContext();
  return *context;
}

TlsClientContext::TlsClientContext() : ctx_(SSL_CTX_new(TLS_client_method())) {
  SSL_CTX* ctx = ctx_.get();
  if (ctx == nullptr) return;
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_default_verify_paths(ctx);  // reads SSL_CERT_FILE and SSL_CERT_DIR
  SSL_CTX_set_alpn_protos(ctx, kAlpnHttp11, sizeof(kAlpnHttp11));
  SSL_CTX_set_mode(ctx, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // Sessions reach the cache through the callback only (TLS 1.3 tickets arrive after the
  // handshake, so the callback is the one place that sees them all).
  SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
  SSL_CTX_sess_set_new_cb(ctx, &on_new_session);
  ERR_clear_error();  // a missing default trust directory is not an error worth keeping
}

// New sessions reach the cache through here only. The SSL's app data is the channel's
// host:port, which outlives the SSL object (the channel frees the SSL first).
int on_new_session(SSL* ssl, SSL_SESSION* session) {
  const auto* peer = static_cast<const std::string*>(SSL_get_app_data(ssl));
  if (peer == nullptr) return 0;  // not kept: OpenSSL frees it
  TlsClientContext::instance().store(*peer, session);
  return 1;
}

std::string openssl_reason(unsigned long code) {
  const char* reason = ERR_reason_error_string(code);
  if (reason != nullptr) return reason;
  char text[256];
  ERR_error_string_n(code, text, sizeof(text));
  return text;
}

bool is_ip_literal(const std::string& host) {
  unsigned char addr[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, host.c_str(), addr) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), addr) == 1;
}

}  // namespace

std::unique_ptr<TlsChannel> TlsChannel::connect(int fd, const std::string& host, int port,
                                                int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::unique_ptr<TlsChannel> channel(new TlsChannel(fd, host + ":" + std::to_string(port)));
  TlsClientContext& context = TlsClientContext::instance();
  ERR_clear_error();
  if (context.get() != nullptr) {
    channel->ssl_.reset(SSL_new(context.get()));
  }
  SSL* ssl = channel->ssl_.get();
  if (ssl == nullptr) {
    channel->fail(SSL_ERROR_SSL);
    return nullptr;
  }
  setnonblock(fd);
  SSL_set_fd(ssl, fd);
  SSL_set_app_data(ssl, &channel->peer_);
  if (is_ip_literal(host)) {
    // No SNI for an address (RFC 6066); the certificate must name the address itself.
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str());
  } else {
    SSL_set_tlsext_host_name(ssl, host.c_str());
    SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    SSL_set1_host(ssl, host.c_str());
  }
  context.resume(ssl, channel->peer_);
  for (;;) {
    ERR_clear_error();
    const int r = SSL_connect(ssl);
    if (r == 1) return channel;
    const int error = SSL_get_error(ssl, r);
    if ((error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) &&
        Clock::now() < deadline) {
      if (channel->wait_for(error, deadline)) continue;
    }
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
      log_err("TLS: handshake timed out (", channel->peer_, ")");
      channel->status_ = Status::failed;
      context.forget(channel->peer_);
      return nullptr;
    }
    channel->fail(error);
    return nullptr;
  }
}

TlsChannel::~TlsChannel() {
  if (ssl_ && (status_ == Status::open || status_ == Status::closed) &&
      SSL_is_init_finished(ssl_.get())) {
    // One try, no wait: a full socket buffer only costs the peer its close_notify.
    ERR_clear_error();
    SSL_shutdown(ssl_.get());
  }
  ERR_clear_error();
}

void TlsChannel::fail(int ssl_error) {
  if (status_ == Status::failed) return;
  status_ = Status::failed;
  TlsClientContext::instance().forget(peer_);
  const unsigned long code = ERR_peek_error();
  std::string reason;
  if (code != 0) {
    reason = openssl_reason(code);
    const long verify = ssl_ ? SSL_get_verify_result(ssl_.get()) : X509_V_OK;
    if (ERR_GET_REASON(code) == SSL_R_CERTIFICATE_VERIFY_FAILED && verify != X509_V_OK) {
      reason += std::string(": ") + X509_verify_cert_error_string(verify);
    }
  } else if (ssl_error == SSL_ERROR_SYSCALL && errno != 0) {
    char text[256];
    reason = strerror_r(errno, text, sizeof(text));
  } else {
    reason = ssl_ ? "connection closed" : "no TLS context";
  }
  ERR_clear_error();
  log_err("TLS: ", reason, " (", peer_, ")");
}

bool TlsChannel::wait_for(int ssl_error, Clock::time_point deadline) const {
  const short events = ssl_error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 && poll_one(fd_, events, static_cast<int>(left)) == 1;
}

long TlsChannel::read(char* buf, unsigned long len, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  size_t total = 0;
  // Bounded: each pass either fills `buf` further, waits (until the deadline), or returns.
  while (status_ == Status::open && total < len) {
    ERR_clear_error();
    size_t n = 0;
    if (SSL_read_ex(ssl_.get(), buf + total, len - total, &n) == 1) {
      total += n;
      continue;
    }
    const int error = SSL_get_error(ssl_.get(), 0);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
      // Data taken so far goes out now; only an empty read waits.
      if (total > 0) break;
      if (!wait_for(error, deadline)) return -2;
    } else if (error == SSL_ERROR_ZERO_RETURN) {
      status_ = Status::closed;
    } else {
      const bool cut = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
      fail(error);
      // A close without close_notify ends the body as a plain close does, but is logged.
      if (cut) status_ = Status::cut;
    }
  }
  if (total > 0) return static_cast<long>(total);
  return status_ == Status::failed ? -1 : 0;
}

long TlsChannel::write(const char* data, size_t n, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  // Once the peer has closed, the bytes are taken and go nowhere, as on a TCP socket after the
  // peer's FIN: the close then shows at the next read, as it does on a plain connection.
  if (status_ == Status::closed || status_ == Status::cut) return static_cast<long>(n);
  size_t done = 0;
  while (done < n) {
    if (status_ != Status::open) return -1;
    ERR_clear_error();
    size_t w = 0;
    if (SSL_write_ex(ssl_.get(), data + done, n - done, &w) == 1) {
      done += w;
      continue;
    }
    const int error = SSL_get_error(ssl_.get(), 0);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
      if (!wait_for(error, deadline)) return -2;
    } else {
      fail(error);
    }
  }
  return static_cast<long>(n);
}

}  // namespace skerir
