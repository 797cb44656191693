#include "main/stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace skerir {

StopSignals::StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  fd_.reset(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
  // Without the descriptor the signals keep their default effect rather than being lost.
  if (!fd_.valid()) pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

int StopSignals::take() {
  signalfd_siginfo info{};
  if (::read(fd_.get(), &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) return 0;
  return static_cast<int>(info.ssi_signo);
}

const char* stop_signal_name(int signo) {
  switch (signo) {
    case SIGTERM:
      return "SIGTERM";
    case SIGINT:
      return "SIGINT";
    default:
      return "a signal";
  }
}

}  // namespace skerir
