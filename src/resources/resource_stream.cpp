#include "resources/resource_stream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <memory>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "main/response.h"
#include "resources/connection_registry.h"
#include "resources/resource_stats.h"
#include "resources/resource_streams.h"
#include "upstream/stream_url.h"
#include "util/log.h"
#include "util/metrics.h"

namespace skerir {
namespace {

// The calendar clock in whole seconds; the no-data time-out is measured on it.
int64_t wall_seconds() { return static_cast<int64_t>(std::time(nullptr)); }

// The client's address as "192.0.2.1:40000" or "[2001:db8::1]:40000"; "" when the socket has
// no IP peer (a socket pair in tests).
std::string peer_address(int socket) {
  sockaddr_storage sa{};
  socklen_t len = sizeof(sa);
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&sa), &len) != 0) return "";
  char host[INET6_ADDRSTRLEN] = {};
  if (sa.ss_family == AF_INET) {
    const auto& in = reinterpret_cast<const sockaddr_in&>(sa);
    ::inet_ntop(AF_INET, &in.sin_addr, host, sizeof(host));
    return compose(host, ":", ntohs(in.sin_port));
  }
  if (sa.ss_family == AF_INET6) {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(sa);
    ::inet_ntop(AF_INET6, &in6.sin6_addr, host, sizeof(host));
    return compose("[", host, "]:", ntohs(in6.sin6_port));
  }
  return "";
}

}  // namespace

bool ResourceStream::write_slice(const char* p, unsigned long len) const {
  while (len > 0) {
    const ssize_t n = ::write(socket_, p, len);
    if (n < 0 && errno == EINTR) continue;
    // Nothing moved within the send time-out, or the connection failed: the client is gone.
    if (n < 0) return false;
    p += n;
    len -= static_cast<unsigned long>(n);
  }
  return true;
}

ResourceStream::ResourceStream(std::string* url, int socket, unsigned long max_buffer_size,
                               Stats* stats, int startFrom)
    : url_(url),
      socket_(socket),
      max_buffer_size_(max_buffer_size),
      stats_(stats),
      startFrom_(startFrom) {}

void ResourceStream::serve() {
  std::signal(SIGPIPE, SIG_IGN);
  int64_t last_data_time = wall_seconds();
  Response(socket_, 200, "Streaming...", "application/octet-stream").send();
  ConnectionRegistry::Stream entry(ConnectionRegistry::process(), peer_address(socket_),
                                   url_ != nullptr ? mask_header_values(*url_) : "");
  StreamCounters& counters = entry.status().counters;
  count(metrics().streams_started);

  CBuffer buffer;
  std::unique_ptr<MasterPlaylist> mpl;
  bool started = false;
  try {
    const StreamUrl target = split_stream_url(url_ != nullptr ? *url_ : "");
    if (!target.error.empty()) {
      log_err("Excep: ", target.error);
    } else if (url_ != nullptr) {
      mpl = std::make_unique<MasterPlaylist>(target.url, &buffer, max_buffer_size_, stats_,
                                             startFrom_);
      mpl->counters = entry.counters();
      mpl->upstream_headers = target.headers;
      started = mpl->start_refreshing();
    }
  } catch (const std::exception& e) {
    log_err("Excep: ", e.what());
  }

  if (!started) {
    log_err("start_refreshing failed!");
  } else {
    for (;;) {
      if (buffer.size.load() == 0 && mpl->should_finish) break;  // the stream has ended
      if (entry.status().stop.load()) break;                     // the process is stopping
      char* ptr = nullptr;
      const unsigned long avail = buffer.read_get_available(&ptr);
      stats_->cbuff_size.store(buffer.size.load() >> 10, std::memory_order_relaxed);
      counters.buffer_bytes.store(buffer.size.load(), std::memory_order_relaxed);
      if (avail == 0) {
        if (static_cast<double>(wall_seconds() - last_data_time) > kStreamNoDataSeconds) {
          log_err("no data for long time, closing stream");
          break;
        }
        // The idle pause ends early when the fill thread adds data, never later.
        buffer.wait_for_data(std::chrono::nanoseconds(kStreamIdleWaitNs));
        continue;
      }
      const unsigned long len = std::min(avail, kStreamWriteSlice);
      if (!write_slice(ptr, len)) break;  // the client has gone
      counters.sent(len);
      last_data_time = wall_seconds();
      buffer.read_notify_read(len);
    }
  }

  log_err("mpl finish and cleanup!");
  if (mpl) mpl->finish();
  buffer.clean();
}

}  // namespace skerir
