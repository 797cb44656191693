// Runs a program as a child process with its standard output and error captured, for tests
// of the real skerir binary.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace skerir::test {

class ChildProcess {
 public:
  // Starts `program` with `args`; throws std::runtime_error when it cannot be started.
  ChildProcess(const std::string& program, const std::vector<std::string>& args);
  // Kills the child if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits for the child to exit; returns its exit status, or -1 on time-out.
  int wait_exit(std::chrono::milliseconds timeout);
  // Sends SIGKILL and reaps the child.
  void kill();
  bool running();

  pid_t pid() const { return pid_; }
  // Collects what the child wrote, waiting up to `timeout` for some to arrive. A child that
  // logs much must be pumped regularly, or it blocks on a full pipe.
  void pump(std::chrono::milliseconds timeout);

  // Everything the child wrote so far. The reference stays valid while the object lives; its
  // contents grow with every later call.
  const std::string& out();
  const std::string& err();
  // Waits until the child's standard output (or error) contains `text`.
  bool wait_for_output(const std::string& text, std::chrono::milliseconds timeout,
                       bool on_stderr = false);

 private:
  void drain();

  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  int status_ = -1;
  std::string out_;
  std::string err_;
};

// Path of the skerir binary under test (set at build time).
std::string skerir_binary();

// Waits until 127.0.0.1:port accepts a connection.
bool wait_until_listening(int port, std::chrono::milliseconds timeout);

}  // namespace skerir::test
