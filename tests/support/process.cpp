#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

#include "support/test_server.h"

namespace skerir::test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args) {
  int out_pipe[2], err_pipe[2];
  if (::pipe2(out_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  if (::pipe2(err_pipe, O_CLOEXEC) != 0) {
    ::close(out_pipe[0]);
    ::close(out_pipe[1]);
    throw std::runtime_error("pipe failed");
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    ::dup2(out_pipe[1], STDOUT_FILENO);
    ::dup2(err_pipe[1], STDERR_FILENO);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  out_fd_ = out_pipe[0];
  err_fd_ = err_pipe[0];
  ::fcntl(out_fd_, F_SETFL, O_NONBLOCK);
  ::fcntl(err_fd_, F_SETFL, O_NONBLOCK);
}

ChildProcess::~ChildProcess() {
  kill();
  if (out_fd_ >= 0) ::close(out_fd_);
  if (err_fd_ >= 0) ::close(err_fd_);
}

void ChildProcess::drain() {
  char buf[65536];
  for (auto [fd, sink] : {std::pair{out_fd_, &out_}, std::pair{err_fd_, &err_}}) {
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof(buf));
      if (n <= 0) break;
      sink->append(buf, static_cast<size_t>(n));
    }
  }
}

bool ChildProcess::running() {
  if (pid_ < 0) return false;
  int status = 0;
  const pid_t r = ::waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid_ = -1;
    return false;
  }
  return true;
}

int ChildProcess::wait_exit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (running()) {
    if (std::chrono::steady_clock::now() > deadline) return -1;
    pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
    ::poll(fds, 2, 20);
    drain();
  }
  drain();
  return status_;
}

void ChildProcess::kill() {
  if (running()) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    status_ = 128 + SIGKILL;
    pid_ = -1;
  }
  drain();
}

void ChildProcess::pump(std::chrono::milliseconds timeout) {
  pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
  ::poll(fds, 2, static_cast<int>(timeout.count()));
  drain();
}

const std::string& ChildProcess::out() {
  drain();
  return out_;
}

const std::string& ChildProcess::err() {
  drain();
  return err_;
}

bool ChildProcess::wait_for_output(const std::string& text, std::chrono::milliseconds timeout,
                                   bool on_stderr) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    drain();
    if ((on_stderr ? err_ : out_).find(text) != std::string::npos) return true;
    if (std::chrono::steady_clock::now() > deadline) return false;
    pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
    ::poll(fds, 2, 50);
  }
}

std::string skerir_binary() { return SKERIR_BINARY; }

bool wait_until_listening(int port, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    const int fd = connect_loopback(port);
    if (fd >= 0) {
      ::close(fd);
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

}  // namespace skerir::test
