// An in-process skerir server on an ephemeral port, and small blocking client helpers for
// talking raw bytes to it.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "main/webserver.h"

namespace skerir::test {

class TestServer {
 public:
  explicit TestServer(unsigned long max_buffer_size = 64ul << 20);
  // Stops accepting. The Webserver itself is kept alive until the process ends, because
  // detached connection threads may still hold its Stats.
  ~TestServer();

  int port() const { return port_; }
  Stats& stats() { return server_->stats(); }

 private:
  Webserver* server_;  // owned by a process-wide list, see the destructor
  std::thread thread_;
  int port_ = -1;
};

// Connects to 127.0.0.1:port; returns the descriptor or -1.
int connect_loopback(int port);

// Sends `request`, closes the sending side and reads until the server closes the connection or
// `timeout` passes.
std::string exchange(int port, const std::string& request,
                     std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Reads until the peer closes (true) or `timeout` passes (false); appends to *out.
bool read_until_close(int fd, std::string* out, std::chrono::milliseconds timeout);

}  // namespace skerir::test
