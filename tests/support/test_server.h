// An in-process skerir server on an ephemeral loopback port, and blocking client helpers that
// talk raw bytes to a server.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "main/webserver.h"

namespace skerir::test {

class TestServer {
 public:
  explicit TestServer(unsigned long max_buffer_size = 64ul << 20);
  // Stops accepting. The Webserver is never freed: detached connection threads may still use it.
  ~TestServer();
  int port() const { return port_; }
  Stats& stats() { return server_->stats(); }

 private:
  Webserver* server_;
  std::thread thread_;
  int port_;
};

// Connects to 127.0.0.1:port; -1 on failure. wait_listening retries for up to 30 s.
int connect_loopback(int port);
bool wait_listening(int port);
// A loopback port nothing listens on at the moment of the call.
int free_port();
// Appends what arrives on `fd` to *out until the peer closes (true) or `timeout` passes.
bool read_until_close(int fd, std::string* out, std::chrono::milliseconds timeout);
// Sends `request`, half-closes and reads the reply until the server closes.
std::string roundtrip(int port, const std::string& request,
                      std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace skerir::test
