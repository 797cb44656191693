#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace skerir::test {
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
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 1, (dir_ + "/out").c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&files, 2, (dir_ + "/err").c_str(), O_WRONLY | O_CREAT, 0600);
  if (::posix_spawn(&pid_, program.c_str(), &files, nullptr, argv.data(), environ) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&files);
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

std::string ChildProcess::out() const { return slurp(dir_ + "/out"); }
std::string ChildProcess::err() const { return slurp(dir_ + "/err"); }

bool ChildProcess::wait_for(const std::string& text, bool on_stderr) const {
  for (int i = 0; i < 600; std::this_thread::sleep_for(std::chrono::milliseconds(50)), ++i) {
    if ((on_stderr ? err() : out()).find(text) != std::string::npos) return true;
  }
  return false;
}

}  // namespace skerir::test
