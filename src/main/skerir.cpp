// Process entry: one argument, the maximal stream-buffer size in bytes.
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <memory>

#include "main/webserver.h"
#include "util/log.h"

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

// Stream-buffer blocks (512 KiB) must go back to the system when a stream ends. glibc raises
// its mmap threshold past a block's size the first time one is freed, after which blocks come
// from the heap arenas and their pages stay resident: the process would keep the memory of
// its busiest moment for ever. A fixed threshold keeps every block mapped on its own and
// unmapped when freed. The price is a page fault per fresh page of each new block (a bulk pull
// costs about a tenth more CPU per MB than with blocks kept in the heaps); giving memory back
// after a load peak is worth more to a long-running proxy.
constexpr int kOwnMappingBytes = 128 * 1024;

void return_large_blocks_to_the_system() { mallopt(M_MMAP_THRESHOLD, kOwnMappingBytes); }

}  // namespace

int main(int argc, char** argv) {
  // A write to a client or upstream that has gone must fail with EPIPE, not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  raise_descriptor_limit();
  size_futex_hash();
  return_large_blocks_to_the_system();

  if (argc < 2) {
    skerir::log_err("Specify maximal buffer size");
    return 2;
  }
  // No validation by design: "abc" gives 0 and a negative number wraps to a huge size.
  const unsigned long max_buffer_size = static_cast<unsigned long>(std::atol(argv[1]));

  auto server = std::make_unique<skerir::Webserver>(0, skerir::kListenPort, skerir::kListenBacklog,
                                                    max_buffer_size);
  try {
    server->serve_forever();
  } catch (const skerir::ListenerError& e) {
    skerir::log_err(e.what());
  }
  return 0;
}
