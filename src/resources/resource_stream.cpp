#include "resources/resource_stream.h"

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
#include "resources/resource_stats.h"
#include "util/log.h"

namespace skerir {
namespace {

// The calendar clock in whole seconds; the no-data time-out is measured on it.
int64_t wall_seconds() { return static_cast<int64_t>(std::time(nullptr)); }

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

  CBuffer buffer;
  std::unique_ptr<MasterPlaylist> mpl;
  bool started = false;
  try {
    if (url_ != nullptr) {
      mpl = std::make_unique<MasterPlaylist>(*url_, &buffer, max_buffer_size_, stats_, startFrom_);
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
      char* ptr = nullptr;
      const unsigned long avail = buffer.read_get_available(&ptr);
      stats_->cbuff_size.store(buffer.size.load() >> 10, std::memory_order_relaxed);
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
      last_data_time = wall_seconds();
      buffer.read_notify_read(len);
    }
  }

  log_err("mpl finish and cleanup!");
  if (mpl) mpl->finish();
  buffer.clean();
}

}  // namespace skerir
