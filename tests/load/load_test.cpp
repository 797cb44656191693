// Fault and load: two hundred streams at once for a minute against origins that stall, cut,
// refuse and lie, clients that vanish or crawl, playlists full of junk, and a cache server that
// dies half-way. The server must come out of it whole: no crash and no sanitizer report, every
// clean stream byte-exact, every stream ended and cleaned up with all its threads and upstream
// connections gone, and its memory back where it was.
//
// Two tests share one driver (support/stream_load.h):
// - In sanitizer builds the server runs in this process, where AddressSanitizer and
//   UndefinedBehaviorSanitizer (or ThreadSanitizer) see every thread and LeakSanitizer checks
//   the heap at exit. Resident memory is reported there but not judged: the sanitizer's
//   quarantine and shadow memory hold on to freed memory by design.
// - In the normal build the real binary runs as a child on its fixed port, and its resident
//   memory is judged. A child measures the server alone: in this process the log capture and
//   the scripted origins grow with the load and would hide what the server gives back.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/sanitizers.h"
#include "support/stream_load.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::LoadFault;
using test::LoadPlan;
using test::LoadVerdict;
using test::StreamLoad;

constexpr int kPort = 7744;
// Small enough that slow readers fill it and the engine pauses on a full buffer.
constexpr unsigned long kMaxBuffer = 256 * 1024;
// Streams whose faults end them by the no-data time-out take about half a minute; a minute
// and a half on top of the load is generous even on a loaded two-core machine.
constexpr auto kSettleDeadline = 180s;
constexpr double kRssTolerance = 0.10;
constexpr auto kPortWait = 300s;
constexpr double kArenaRetentionKib = 256;  // per glibc arena, see the memory check
constexpr unsigned kArenasPerCore = 8;      // glibc's arena limit on 64-bit systems
// The load's mix at its concurrency before "before": long enough for the threads to contend in
// the allocator, which is what makes glibc create its arenas (up to eight per core), and for
// every error path to have run once.
constexpr auto kWarmUp = 10s;
const std::string kCleanupLine = "mpl finish and cleanup!";

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitized = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitized = true;
#else
constexpr bool kThreadSanitized = false;
#endif
#else
constexpr bool kThreadSanitized = false;
#endif

// Full scale everywhere but under ThreadSanitizer, which slows every thread by an order of
// magnitude and tracks a thousand of them poorly: there a fifth of the streams for a third of
// the time still runs every fault.
LoadPlan plan_for_this_build() {
  LoadPlan plan;
  if (kThreadSanitized) {
    plan.slots = 40;
    plan.duration = 20s;
    plan.cache_death_at = 8s;
  }
  // For trying the test out quickly; CI leaves both unset.
  if (const char* slots = std::getenv("SKERIR_LOAD_SLOTS")) plan.slots = std::atoi(slots);
  if (const char* seconds = std::getenv("SKERIR_LOAD_SECONDS")) {
    plan.duration = std::chrono::seconds(std::atoi(seconds));
    plan.cache_death_at = plan.duration * 2 / 5;
  }
  return plan;
}

struct ProcStatus {
  uint64_t rss_kib = 0;
  uint64_t hwm_kib = 0;   // the peak of rss_kib so far
  uint64_t anon_kib = 0;  // the process's own memory: heap, stacks, buffers
  uint64_t file_kib = 0;  // code and data of the binary and its libraries
  int threads = 0;
};

ProcStatus read_status(const std::string& path) {
  ProcStatus s;
  std::ifstream in(path);
  std::string key;
  while (in >> key) {
    if (key == "VmRSS:") in >> s.rss_kib;
    if (key == "VmHWM:") in >> s.hwm_kib;
    if (key == "RssAnon:") in >> s.anon_kib;
    if (key == "RssFile:") in >> s.file_kib;
    if (key == "Threads:") in >> s.threads;
    in.ignore(1 << 20, '\n');
  }
  return s;
}

// Polls `done` until it holds or `timeout` passes.
template <class Pred>
bool wait_until(Pred done, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

size_t count_lines(const std::string& text, const std::string& line) {
  size_t n = 0;
  for (size_t at = 0; (at = text.find(line + "\n", at)) != std::string::npos; at += line.size()) {
    if (at == 0 || text[at - 1] == '\n') ++n;
  }
  return n;
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(std::move(line));
  return out;
}

double mib(uint64_t kib) { return static_cast<double>(kib) / 1024.0; }

// Prints the figures on standard output, where CI logs keep them.
void print_figures(const char* where, const StreamLoad& load, const LoadVerdict& v,
                   const ProcStatus& before, uint64_t peak_kib, const ProcStatus& after,
                   double seconds, size_t cleanups) {
  std::ostringstream os;
  os << "[load] " << where << "\n";
  os << "[load] streams started: " << load.connected() << " (" << load.warm_up_streams()
     << " of them warm-up), connect failures: " << load.connect_failures() << "\n";
  os << "[load] streams per fault:";
  const auto per = load.streams_per_fault();
  for (size_t k = 0; k < per.size(); ++k) {
    os << (k ? ", " : " ") << test::fault_name(static_cast<LoadFault>(k)) << " " << per[k];
  }
  os << "; cache servers killed: " << (load.cache_server_killed() ? 1 : 0) << "\n";
  os << "[load] clean streams read to the end: " << v.clean << ", byte-exact: " << v.byte_exact
     << ", with every segment: " << v.complete << "\n";
  os << "[load] cleanup lines: " << cleanups << "\n";
  os << std::fixed;
  os.precision(1);
  os << "[load] resident memory: before " << mib(before.rss_kib) << " MiB (anonymous "
     << mib(before.anon_kib) << ", file " << mib(before.file_kib) << "), peak " << mib(peak_kib)
     << " MiB, after " << mib(after.rss_kib) << " MiB (anonymous " << mib(after.anon_kib)
     << ", file " << mib(after.file_kib) << "); threads before " << before.threads << ", after "
     << after.threads << "\n";
  os << "[load] wall time: " << seconds << " s\n";
  // The slowest streams, which set how long the load takes to drain.
  std::vector<const test::StreamRecord*> slow;
  for (const auto& r : load.records()) slow.push_back(&r);
  const size_t shown = std::min<size_t>(5, slow.size());
  std::partial_sort(slow.begin(), slow.begin() + shown, slow.end(),
                    [](auto* a, auto* b) { return a->seconds > b->seconds; });
  os << "[load] slowest streams:";
  for (size_t i = 0; i < shown; ++i) {
    os << (i ? ", " : " ") << slow[i]->name << " (" << test::fault_name(slow[i]->fault) << ") "
       << slow[i]->seconds << " s";
  }
  os << "\n";
  for (const std::string& f : v.failures) os << "[load] not byte-exact: " << f << "\n";
  std::fputs(os.str().c_str(), stdout);
  std::fflush(stdout);
}

// What every run must show, whichever process served it.
void expect_survived(const StreamLoad& load, const LoadVerdict& v, size_t cleanups) {
  EXPECT_EQ(load.connect_failures(), 0u);
  for (const auto& r : load.records()) {
    EXPECT_FALSE(r.timed_out) << r.name << " (" << test::fault_name(r.fault)
                              << ") never ended: " << r.body_bytes << " bytes";
    if (r.connected && !r.vanished && r.fault != LoadFault::kClientVanishes) {
      EXPECT_TRUE(r.closed) << r.name;
    }
  }
  // Each stream's endpoint logs the line once, after its copy loop and before its teardown.
  EXPECT_EQ(cleanups, load.connected());
  EXPECT_GT(v.clean, 0u);
  EXPECT_EQ(v.byte_exact, v.clean);
  for (size_t k = 0; k < test::kLoadFaultKinds; ++k) {
    EXPECT_GT(load.streams_per_fault()[k], 0u) << test::fault_name(static_cast<LoadFault>(k));
  }
  EXPECT_TRUE(load.cache_server_killed());
}

// Sends this process's standard output to /dev/null while it lives: two hundred streams log
// megabytes of progress lines, which the log capture keeps anyway. Standard error, where
// failures and sanitizer reports go, is left alone.
class QuietStdout {
 public:
  QuietStdout() {
    std::fflush(stdout);
    saved_ = ::dup(STDOUT_FILENO);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
  ~QuietStdout() { restore(); }
  void restore() {
    if (saved_ < 0) return;
    ::dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
    saved_ = -1;
  }

 private:
  int saved_ = -1;
};

TEST(StreamLoad, InProcessServerSurvivesFaultsUnderSanitizers) {
  if (!test::kSanitized) {
    GTEST_SKIP() << "the normal build runs this load against the real binary "
                    "(StreamLoad.RealBinarySurvivesFaultsAndGivesBackItsMemory)";
  }
  const auto start = Clock::now();
  auto& log = test::LogCapture::instance();
  log.clear();
  const LoadPlan plan = plan_for_this_build();
  StreamLoad load(plan);
  test::TestServer server(kMaxBuffer);
  ASSERT_TRUE(load.install_cache_maps(server.port()));
  const int base_threads = read_status("/proc/self/status").threads;

  QuietStdout quiet;
  // Warm-up with the load's mix, so that the allocator's arenas and the thread-stack cache
  // exist before "before".
  load.warm_up(server.port(), plan.slots, kWarmUp);
  EXPECT_TRUE(log.wait_for(kCleanupLine, kSettleDeadline, load.connected()));
  EXPECT_TRUE(wait_until([&] { return read_status("/proc/self/status").threads <= base_threads; },
                         kSettleDeadline));
  const ProcStatus before = read_status("/proc/self/status");

  load.run(server.port(), [] {});
  EXPECT_TRUE(log.wait_for(kCleanupLine, kSettleDeadline, load.connected()));
  EXPECT_TRUE(load.wait_for_idle_origins(kSettleDeadline));
  // Connection threads are detached and engine threads joined by them: the count coming back
  // down is the proof that all of them ended.
  EXPECT_TRUE(wait_until([&] { return read_status("/proc/self/status").threads <= base_threads; },
                         kSettleDeadline));
  const ProcStatus after = read_status("/proc/self/status");
  quiet.restore();

  const LoadVerdict verdict = load.judge(log.lines(LogStream::out));
  const size_t cleanups = log.count(kCleanupLine);
  print_figures("in-process server, sanitizer build", load, verdict, before, after.hwm_kib, after,
                std::chrono::duration<double>(Clock::now() - start).count(), cleanups);
  expect_survived(load, verdict, cleanups);
  EXPECT_LE(after.threads, base_threads);
}

// Whether process `pid` owns a socket listening on TCP `port`, so the test cannot mistake
// another program on the shared fixed port for its own child.
bool owns_listener(pid_t pid, int port) {
  std::set<std::string> inodes;
  std::ifstream tcp("/proc/net/tcp");
  std::string line;
  std::getline(tcp, line);
  char hex_port[8];
  std::snprintf(hex_port, sizeof(hex_port), ":%04X", port);
  while (std::getline(tcp, line)) {
    std::istringstream in(line);
    std::string sl, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    in >> sl >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >>
        inode;
    if (state == "0A" && local.size() > 5 && local.substr(local.size() - 5) == hex_port) {
      inodes.insert("socket:[" + inode + "]");
    }
  }
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return false;
  bool found = false;
  while (dirent* e = ::readdir(d)) {
    char target[256] = {};
    const std::string link = dir + "/" + e->d_name;
    if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0 && inodes.count(target)) {
      found = true;
    }
  }
  ::closedir(d);
  return found;
}

// Starts the binary on its fixed port. On a shared machine another program may hold the port
// for a while (a benchmark, another tree's tests); the child then exits at once, and it is
// started again until it owns the listening socket or the wait is over.
std::unique_ptr<test::ChildProcess> start_on_fixed_port() {
  const auto deadline = Clock::now() + kPortWait;
  for (;;) {
    auto child = std::make_unique<test::ChildProcess>(
        test::skerir_binary(), std::vector<std::string>{std::to_string(kMaxBuffer)});
    const pid_t pid = child->pid();
    if (wait_until([&] { return owns_listener(pid, kPort) || !child->running(); }, 30s) &&
        child->running()) {
      return child;
    }
    if (Clock::now() > deadline) return nullptr;
    std::this_thread::sleep_for(1s);  // back off while the port is someone else's
  }
}

// Reads the child's output on a thread of its own while the load runs: at two hundred streams
// the child fills a pipe within milliseconds and would block on its own log lines.
class OutputPump {
 public:
  explicit OutputPump(test::ChildProcess& child)
      : child_(child), thread_([this] {
          while (!stop_.load()) child_.pump(50ms);
        }) {}
  ~OutputPump() { stop(); }
  void stop() {
    if (!stop_.exchange(true)) thread_.join();
  }

 private:
  test::ChildProcess& child_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST(StreamLoad, RealBinarySurvivesFaultsAndGivesBackItsMemory) {
  if (test::kSanitized) {
    GTEST_SKIP() << "resident memory is judged on the normal build; sanitizer builds run "
                    "StreamLoad.InProcessServerSurvivesFaultsUnderSanitizers";
  }
  const auto start = Clock::now();
  const LoadPlan plan = plan_for_this_build();
  StreamLoad load(plan);
  std::unique_ptr<test::ChildProcess> started = start_on_fixed_port();
  ASSERT_TRUE(started) << "port " << kPort << " stayed taken by another program";
  test::ChildProcess& child = *started;
  const pid_t pid = child.pid();
  const std::string status_path = "/proc/" + std::to_string(pid) + "/status";
  ASSERT_TRUE(load.install_cache_maps(kPort));

  auto cleanups = [&] { return count_lines(child.err(), kCleanupLine); };
  ProcStatus before;
  uint64_t peak = 0;
  {
    OutputPump pump(child);
    load.warm_up(kPort, plan.slots, kWarmUp);
    pump.stop();
    EXPECT_TRUE(wait_until(
        [&] {
          child.pump(0ms);
          return cleanups() >= load.connected() && read_status(status_path).threads == 1;
        },
        kSettleDeadline));
    // "Before" is the idle server after a warm-up with the load's mix at its concurrency:
    // glibc makes a new arena whenever threads contend (up to eight per core) and keeps each
    // one with up to a few hundred KiB of free pages at its top (even malloc_trim leaves those),
    // so a server that has once been this busy holds them for good. What the load must not add
    // to is what remains beyond that.
    before = read_status(status_path);

    OutputPump load_pump(child);
    load.run(kPort, [&] { peak = std::max(peak, read_status(status_path).rss_kib); });
  }
  // Once the clients are done only teardown is left, which logs little: pumping here is enough.
  EXPECT_TRUE(wait_until(
      [&] {
        child.pump(0ms);
        return cleanups() >= load.connected();
      },
      kSettleDeadline));
  EXPECT_TRUE(load.wait_for_idle_origins(kSettleDeadline));
  // Connection threads are detached and join their engine's threads: the child back to its
  // one listening thread means every one of them ended.
  EXPECT_TRUE(wait_until(
      [&] {
        child.pump(0ms);
        return read_status(status_path).threads == 1;
      },
      kSettleDeadline));
  const ProcStatus after = read_status(status_path);
  peak = std::max(peak, after.hwm_kib);
  ASSERT_TRUE(child.running()) << child.err().substr(std::max<size_t>(child.err().size(), 4096) -
                                                     4096);

  const LoadVerdict verdict = load.judge(split_lines(child.out()));
  print_figures("skerir binary, normal build", load, verdict, before, peak, after,
                std::chrono::duration<double>(Clock::now() - start).count(), cleanups());
  expect_survived(load, verdict, cleanups());
  EXPECT_EQ(after.threads, 1);
  // Judged on anonymous memory, the part the server allocates and must give back. The
  // file-backed part is library code paged in the first time a path runs; it is shared with
  // the page cache and does not grow with load or time. On top of the tolerance, glibc keeps up
  // to about 256 KiB of free pages at the top of each of its arenas (its top pad plus its trim
  // threshold; malloc_trim leaves them too), and a warm-up does not reach every arena's high
  // mark: measured over runs of 1,000 to 9,000 streams this settles near 5 MiB on two cores
  // whatever the number of streams, where a leak would grow with it.
  const double arena_allowance_kib =
      kArenaRetentionKib * kArenasPerCore * std::max(1u, std::thread::hardware_concurrency());
  EXPECT_LE(static_cast<double>(after.anon_kib),
            static_cast<double>(before.anon_kib) * (1.0 + kRssTolerance) + arena_allowance_kib);
  child.kill();
}

}  // namespace
}  // namespace skerir
