// A program (the real skerir binary, usually) as a child process, its output collected in files.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace skerir::test {

class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& args);
  ~ChildProcess();  // kills the child if it still runs

  // The exit status (128 + signal when killed), or -1 when it still runs after `timeout`.
  int wait_exit(std::chrono::milliseconds timeout);
  pid_t pid() const { return pid_; }
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
