// SIGTERM and SIGINT as a readable descriptor, for the accept loop to poll.
//
// The constructor blocks both signals in the calling thread and opens a signalfd for them.
// Construct it on the main thread before any other thread exists: every thread started later
// inherits the block, so the signals only ever arrive through fd(), no handler runs, and no
// system call of a connection or engine thread is interrupted by them. Main thread only.
#pragma once

#include "util/unique_fd.h"

namespace skerir {

class StopSignals {
 public:
  StopSignals();

  // Readable while a stop signal is pending. Valid for the life of the object.
  int fd() const { return fd_.get(); }

  // Takes one pending stop signal and returns its number; 0 when none is pending.
  int take();

 private:
  UniqueFd fd_;
};

// "SIGTERM", "SIGINT", or the number for any other signal.
const char* stop_signal_name(int signo);

}  // namespace skerir
