#include "support/test_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace skerir::test {

TestServer::TestServer(unsigned long max_buffer_size)
    : server_(new Webserver(INADDR_LOOPBACK, 0, 5, max_buffer_size)) {
  LogCapture::instance();
  server_->do_bind();
  port_ = server_->bound_port();
  thread_ = std::thread([s = server_] { s->serve_forever(); });
  while (!server_->serving()) std::this_thread::yield();
}

TestServer::~TestServer() {
  server_->request_stop();
  thread_.join();
  // Kept reachable, not freed: detached connection threads may still use it, and a pointer
  // held here keeps LeakSanitizer from reporting what is left on purpose. Only the test's own
  // thread destroys servers.
  static auto* const retired = new std::vector<Webserver*>();
  retired->push_back(server_);
}

int connect_loopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{.sin_family = AF_INET,
                 .sin_port = htons(static_cast<uint16_t>(port)),
                 .sin_addr = {htonl(INADDR_LOOPBACK)}};
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0) return fd;
  ::close(fd);
  return -1;
}

bool wait_listening(int port) {
  for (int i = 0; i < 600; ++i) {
    const int fd = connect_loopback(port);
    if (fd >= 0) return ::close(fd) == 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

int free_port() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
  socklen_t len = sizeof(sa);
  ::bind(fd, reinterpret_cast<sockaddr*>(&sa), len);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
  ::close(fd);
  return ntohs(sa.sin_port);
}

bool read_until_close(int fd, std::string* out, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buf[65536];
  for (pollfd p{fd, POLLIN, 0};;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) == 0) return false;
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return true;  // a reset counts as closed
    out->append(buf, static_cast<size_t>(n));
  }
}

std::string roundtrip(int port, const std::string& request, std::chrono::milliseconds timeout) {
  const int fd = connect_loopback(port);
  [[maybe_unused]] const ssize_t w = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  ::shutdown(fd, SHUT_WR);
  std::string reply;
  read_until_close(fd, &reply, timeout);
  ::close(fd);
  return reply;
}

LogCapture& LogCapture::instance() {
  static LogCapture* capture = [] {
    auto* c = new LogCapture();  // never destroyed: late log lines must still find it
    set_log_tap(c);
    return c;
  }();
  return *capture;
}

void LogCapture::on_line(LogStream stream, std::string_view line) {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(stream, line);
  changed_.notify_all();
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<std::string> LogCapture::lines(LogStream stream) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& [s, text] : lines_) {
    if (s == stream) out.push_back(text);
  }
  return out;
}

size_t LogCapture::count(std::string_view text, bool exact) const {
  std::lock_guard lock(mutex_);
  return std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) {
    return exact ? l.second == text : l.second.find(text) != std::string::npos;
  });
}

bool LogCapture::wait_for(std::string_view text, std::chrono::milliseconds timeout, size_t n) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    lock.unlock();
    const bool enough = count(text) >= n;
    lock.lock();
    return enough;
  });
}

namespace {

std::string slurp(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

}  // namespace

std::string skerir_binary() { return SKERIR_BINARY; }

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args) {
  char dir[] = "/tmp/skerir-child.XXXXXX";
  dir_ = ::mkdtemp(dir);
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const std::string out = dir_ + "/out", err = dir_ + "/err";
  pid_ = ::fork();
  if (pid_ == 0) {                       // only async-signal-safe calls until exec
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that dies leaves no server on its port
    ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT, 0600), 1);
    ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT, 0600), 2);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
  wait_exit(std::chrono::seconds(30));
  std::filesystem::remove_all(dir_);
}

int ChildProcess::wait_exit(std::chrono::milliseconds timeout) {
  for (auto end = std::chrono::steady_clock::now() + timeout; pid_ > 0;) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      pid_ = -1;
    } else if (std::chrono::steady_clock::now() >= end) {
      return -1;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  return status_;
}

uint64_t ChildProcess::status(const std::string& key) const {
  std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
  uint64_t value = 0;
  for (std::string k; in >> k && k != key;) in.ignore(1 << 20, '\n');
  in >> value;
  return value;
}

std::string ChildProcess::out() const { return slurp(dir_ + "/out"); }
std::string ChildProcess::err() const { return slurp(dir_ + "/err"); }

bool ChildProcess::wait_for(const std::string& text, bool on_stderr) const {
  for (int i = 0; i < 600; std::this_thread::sleep_for(std::chrono::milliseconds(50)), ++i) {
    if ((on_stderr ? err() : out()).find(text) != std::string::npos) return true;
  }
  return false;
}

}  // namespace skerir::test
