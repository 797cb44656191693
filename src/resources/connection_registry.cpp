#include "resources/connection_registry.h"

#include <sys/socket.h>

#include <algorithm>
#include <ctime>

#include "buffer/cbuffer.h"

namespace skerir {

ConnectionRegistry& ConnectionRegistry::process() {
  // Never destroyed: detached connection threads may unregister while the process exits.
  static auto* registry = new ConnectionRegistry();
  return *registry;
}

ConnectionRegistry::Connection::Connection(ConnectionRegistry& registry, int socket)
    : registry_(registry), socket_(socket) {
  std::lock_guard lock(registry_.mutex_);
  registry_.sockets_.push_back(socket_);
  if (registry_.shutting_down_) ::shutdown(socket_, SHUT_RDWR);
}

ConnectionRegistry::Connection::~Connection() {
  std::lock_guard lock(registry_.mutex_);
  auto& v = registry_.sockets_;
  v.erase(std::find(v.begin(), v.end(), socket_));
}

ConnectionRegistry::Stream::Stream(ConnectionRegistry& registry, std::string client,
                                   std::string url, CBuffer* buffer)
    : registry_(registry), status_(std::make_shared<StreamStatus>()) {
  status_->client = std::move(client);
  status_->url = std::move(url);
  status_->buffer = buffer;
  status_->started = static_cast<int64_t>(std::time(nullptr));
  std::lock_guard lock(registry_.mutex_);
  status_->id = ++registry_.last_stream_id_;
  if (registry_.shutting_down_) status_->stop = true;
  registry_.streams_.push_back(status_);
}

ConnectionRegistry::Stream::~Stream() {
  std::lock_guard lock(registry_.mutex_);
  auto& v = registry_.streams_;
  v.erase(std::find(v.begin(), v.end(), status_));
}

std::shared_ptr<StreamCounters> ConnectionRegistry::Stream::counters() const {
  return std::shared_ptr<StreamCounters>(status_, &status_->counters);
}

std::vector<std::shared_ptr<const StreamStatus>> ConnectionRegistry::streams() const {
  std::lock_guard lock(mutex_);
  return {streams_.begin(), streams_.end()};
}

size_t ConnectionRegistry::stream_count() const {
  std::lock_guard lock(mutex_);
  return streams_.size();
}

size_t ConnectionRegistry::connection_count() const {
  std::lock_guard lock(mutex_);
  return sockets_.size();
}

void ConnectionRegistry::shut_down_all() {
  std::lock_guard lock(mutex_);
  shutting_down_ = true;
  for (const int s : sockets_) ::shutdown(s, SHUT_RDWR);
  for (const auto& stream : streams_) {
    stream->stop = true;
    // A stream waiting for data would otherwise notice only when data came or time ran out.
    if (stream->buffer != nullptr) stream->buffer->wake_reader();
  }
}

}  // namespace skerir
