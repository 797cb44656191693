#include "resources/resource_stream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <memory>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "main/response.h"
#include "resources/connection_registry.h"
#include "resources/resource_stats.h"
#include "resources/resource_streams.h"
#include "upstream/connection.h"
#include "upstream/stream_url.h"
#include "util/log.h"
#include "util/metrics.h"

namespace skerir {
namespace {

// The calendar clock in whole seconds; the no-data time-out is measured on it. The same clock
// as the idle wait's deadline, so the check passes the moment that wait ends.
int64_t wall_seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The first moment at which the no-data check in serve() passes.
std::chrono::system_clock::time_point no_data_deadline(int64_t last_data_time) {
  const auto first_late_second =
      last_data_time + static_cast<int64_t>(std::floor(kStreamNoDataSeconds)) + 1;
  return std::chrono::system_clock::time_point(std::chrono::seconds(first_late_second));
}

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
  CBuffer buffer;  // outlives `entry`, which wakes its reader on a stop
  ConnectionRegistry::Stream entry(ConnectionRegistry::process(), peer_address(socket_),
                                   url_ != nullptr ? mask_header_values(*url_) : "", &buffer);
  StreamCounters& counters = entry.status().counters;
  count(metrics().streams_started);

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
      // The first fetches run on this thread: a process that is stopping ends them too.
      WaitLimit stopping(&entry.status().stop);
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
      const uint64_t buffered = buffer.size.load();
      stats_->cbuff_size.store(buffered >> 10, std::memory_order_relaxed);
      counters.buffer_bytes.store(buffered, std::memory_order_relaxed);
      if (buffered == 0) {
        if (static_cast<double>(wall_seconds() - last_data_time) > kStreamNoDataSeconds) {
          log_err("no data for long time, closing stream");
          break;
        }
        // Sleeps until there is something to do: bytes arrive, the engine ends the stream or
        // the process stops it (both wake the buffer's reader), or the no-data limit falls due.
        buffer.wait_for_data_until(no_data_deadline(last_data_time));
        continue;
      }
      char* ptr = nullptr;
      const unsigned long avail = buffer.read_get_available(&ptr);
      if (avail == 0) continue;  // an abandoned empty block was skipped; the bytes come next
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
