// skerir under test: in this process on an ephemeral loopback port (TestServer) with every
// line it logs recorded (LogCapture), or as the real binary in a child process (ChildProcess);
// and blocking client helpers that talk raw bytes to it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "main/webserver.h"
#include "util/log.h"

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

// Records every log line of the test process so tests can wait for and count them. One
// instance, installed on first use and never removed: detached server threads may log after
// a test ends. Thread-safe.
class LogCapture : public LogTap {
 public:
  static LogCapture& instance();
  void on_line(LogStream stream, std::string_view line) override;

  void clear();
  std::vector<std::string> lines(LogStream stream) const;
  // Lines since the last clear() that contain `text` (that equal it, with `exact`).
  size_t count(std::string_view text, bool exact = false) const;
  bool wait_for(std::string_view text, std::chrono::milliseconds timeout, size_t n = 1);

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::pair<LogStream, std::string>> lines_;
};

// A program (the real skerir binary, usually) as a child process, its output collected in files.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& args);
  ~ChildProcess();  // kills the child if it still runs

  // The exit status (128 + signal when killed), or -1 when it still runs after `timeout`.
  int wait_exit(std::chrono::milliseconds timeout);
  pid_t pid() const { return pid_; }
  // A number from /proc/<pid>/status, such as "Threads:" or "RssAnon:" (in KiB); 0 if absent.
  uint64_t status(const std::string& key) const;
  std::string out() const;  // everything written so far
  std::string err() const;
  // Waits up to 30 s until standard error (or output) holds `text`.
  bool wait_for(const std::string& text, bool on_stderr = true) const;

 private:
  pid_t pid_;
  int status_ = -1;
  std::string dir_;
};

std::string skerir_binary();

}  // namespace skerir::test
