// Process entry: the maximal stream-buffer size in bytes, then the options; the accept loop
// until a stop signal; then every stream ended before the process exits.
#include <malloc.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>

#include "main/options.h"
#include "main/stop_signals.h"
#include "main/webserver.h"
#include "resources/connection_registry.h"
#include "upstream/upstream_policy.h"
#include "util/log.h"

namespace skerir {
namespace {

// Every connection and every upstream transfer holds a descriptor; allow as many as the
// system lets this process have.
void raise_descriptor_limit() {
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < lim.rlim_max) {
    lim.rlim_cur = lim.rlim_max;
    setrlimit(RLIMIT_NOFILE, &lim);
  }
}

// Linux 6.16 gives each process its own futex hash table, sized for the number of CPUs rather
// than of threads: 16 slots on a two-core machine. Every stream keeps a thread or two parked
// in a timed futex wait (the empty-buffer wait), so with a thousand streams each wait and
// wake walks a chain of a hundred sleepers, and those walks cost more than the waits
// themselves. A table of 8192 slots (about 0.5 MiB) keeps the chains short. Older kernels
// reject the option, which changes nothing.
#ifndef PR_FUTEX_HASH
#define PR_FUTEX_HASH 78
#define PR_FUTEX_HASH_SET_SLOTS 1
#endif
constexpr unsigned long kFutexHashSlots = 8192;

void size_futex_hash() { prctl(PR_FUTEX_HASH, PR_FUTEX_HASH_SET_SLOTS, kFutexHashSlots, 0, 0); }

// Stream-buffer blocks (512 KiB) must go back to the system once no stream needs them. glibc
// raises its mmap threshold past a block's size the first time one is freed, after which blocks
// come from the heap arenas and their pages stay resident: the process would keep the memory of
// its busiest moment for ever. A fixed threshold keeps every block mapped on its own and
// unmapped when freed. A fresh mapping faults in and zeroes each of its pages, so blocks are
// recycled through the bounded BlockPool, which releases what stays unused.
constexpr int kOwnMappingBytes = 128 * 1024;

void return_large_blocks_to_the_system() { mallopt(M_MMAP_THRESHOLD, kOwnMappingBytes); }

// How long a stopping process waits for its connections to end. A stream ends as soon as its
// engine's threads are joined, and a fill thread notices the stop between two upstream reads,
// which wait 2 s at most; a thread stuck longer (a 6 s status-line wait) is not waited for,
// so the process is gone within three seconds of the signal.
constexpr auto kStopGrace = std::chrono::milliseconds(2500);
constexpr int kStopPollMs = 20;

// After a stop signal: the listeners are closed already; every connection is shut down and
// every stream told to stop, then the connection threads get kStopGrace to finish (each stream
// finishes its engine, joining its threads). A second signal ends the wait and the process.
int stop(StopSignals& signals, int signo) {
  ConnectionRegistry& registry = ConnectionRegistry::process();
  log_err("stopping on ", stop_signal_name(signo), "; streams running: ", registry.stream_count());
  registry.shut_down_all();
  const auto deadline = std::chrono::steady_clock::now() + kStopGrace;
  while (registry.connection_count() != 0 && std::chrono::steady_clock::now() < deadline) {
    pollfd pfd{signals.fd(), POLLIN, 0};
    if (::poll(&pfd, 1, kStopPollMs) > 0) {
      const int again = signals.take();
      log_err("stopping at once on a second ", stop_signal_name(again));
      ::_exit(128 + again);
    }
  }
  if (const size_t left = registry.connection_count(); left != 0) {
    log_err("stopped; connections still ending: ", left);
    // Their threads may still be inside an upstream wait; nothing they hold needs saving.
    ::_exit(0);
  }
  log_err("stopped");
  return 0;
}

}  // namespace
}  // namespace skerir

int main(int argc, char** argv) {
  // A write to a client or upstream that has gone must fail with EPIPE, not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  skerir::raise_descriptor_limit();
  skerir::size_futex_hash();
  skerir::return_large_blocks_to_the_system();

  const skerir::Options options = skerir::Options::parse({argv + 1, argv + argc});
  switch (options.action) {
    case skerir::Options::Action::kHelp:
    case skerir::Options::Action::kVersion:
      skerir::log_out(options.message);
      return 0;
    case skerir::Options::Action::kFail:
      skerir::log_err(options.message);
      return 2;
    case skerir::Options::Action::kServe:
      break;
  }

  skerir::StopSignals signals;  // before the first thread, which inherits the blocked signals
  skerir::set_upstream_policy(options.upstream);
  std::vector<skerir::ListenAddress> addresses = options.listen;
  if (addresses.empty()) addresses.push_back(skerir::ListenAddress::ipv4(0, skerir::kListenPort));
  auto server = std::make_unique<skerir::Webserver>(std::move(addresses), skerir::kListenBacklog,
                                                    options.max_buffer_size);
  server->map_token = options.map_token;
  server->stop_when_readable(signals.fd());
  try {
    server->serve_forever();
  } catch (const skerir::ListenerError& e) {
    skerir::log_err(e.what());
    return 0;
  }
  return skerir::stop(signals, signals.take());
}
