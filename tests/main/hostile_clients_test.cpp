// Clients that misbehave on purpose: thousands that connect and say nothing, request lines of a
// megabyte without a line feed, and dozens sending garbage at the same moment. Throughout, a
// probe keeps asking for /stats.json and times each round trip: the server must keep answering
// it promptly while they misbehave, and once they are gone every connection thread and socket
// must be released.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/sanitizers.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::TestServer;

// Scale of each attack. Under sanitizers thread creation is an order of magnitude slower, so
// the numbers shrink there (the code paths are the same).
const int kIdleClients = test::kSanitized ? 200 : 2000;
const int kLongLineClients = test::kSanitized ? 1 : 2;
const int kGarbageClients = test::kSanitized ? 20 : 50;
constexpr size_t kLongLine = 1 << 20;
// The round-trip bound holds on the normal build only; sanitizers make it meaningless.
constexpr auto kProbeBound = 1s;
constexpr auto kDeadline = 60s;

const char kStatsHeader[] =
    "HTTP/1.0 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n"
    "Allow: GET, HEAD\r\nCache-Control: no-cache\r\nAccess-Control-Allow-Origin: *\r\n\r\n";
const char kInvalidHeader[] =
    "HTTP/1.0 406 Invalid Request\r\nContent-Type: plain/text\r\nConnection: close\r\n"
    "Allow: GET, HEAD\r\nCache-Control: no-cache\r\nAccess-Control-Allow-Origin: *\r\n\r\n";

bool is_stats_reply(const std::string& reply) {
  return reply.starts_with(kStatsHeader) && reply.find("\"avg_speed\": ") != std::string::npos &&
         reply.ends_with("}\n");
}

// Asks for /stats.json again and again on its own thread and records every round trip.
class StatsProbe {
 public:
  explicit StatsProbe(int port) : port_(port), thread_([this] { run(); }) {}
  ~StatsProbe() {
    stop_ = true;
    thread_.join();
  }

  // Waits until `n` more probes have completed. False on time-out.
  bool wait_for_probes(int n) {
    std::unique_lock lock(mutex_);
    const size_t target = rounds_.size() + n;
    return changed_.wait_for(lock, kDeadline, [&] { return rounds_.size() >= target; });
  }

  struct Round {
    Clock::duration took;
    bool ok;
  };
  std::vector<Round> rounds() {
    std::lock_guard lock(mutex_);
    return rounds_;
  }

 private:
  void run() {
    while (!stop_) {
      const auto start = Clock::now();
      std::string reply;
      try {
        reply = test::exchange(port_, "GET /stats.json HTTP/1.0\r\n\r\n", kDeadline);
      } catch (const std::exception&) {
      }
      const Round round{Clock::now() - start, is_stats_reply(reply)};
      {
        std::lock_guard lock(mutex_);
        rounds_.push_back(round);
      }
      changed_.notify_all();
      std::this_thread::sleep_for(20ms);
    }
  }

  const int port_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Round> rounds_;
  std::thread thread_;
};

// The listening socket of the in-process server on `port`, found among this process's
// descriptors, so that connects can be paced by its accept queue.
int listening_fd(int port) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename());
    int listening = 0;
    socklen_t len = sizeof(listening);
    if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) != 0 || !listening) continue;
    sockaddr_in sa{};
    len = sizeof(sa);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0 &&
        sa.sin_family == AF_INET && ntohs(sa.sin_port) == port) {
      return fd;
    }
  }
  return -1;
}

// Connections waiting in the listening socket's accept queue.
unsigned accept_queue(int listen_fd) {
  tcp_info info{};
  socklen_t len = sizeof(info);
  if (::getsockopt(listen_fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0) return 0;
  return info.tcpi_unacked;
}

// The backlog is 5 by design; a connect that finds the accept queue full has its SYN dropped
// and retried a second later. Waiting for the queue to drain before each connect keeps room for
// the probe, so only the server's own speed shows in its round trips.
int connect_paced(int port, int listen_fd) {
  const auto deadline = Clock::now() + kDeadline;
  while (accept_queue(listen_fd) >= 2 && Clock::now() < deadline) {
    std::this_thread::sleep_for(200us);
  }
  return test::connect_loopback(port);
}

void send_all(int fd, const std::string& bytes) {
  size_t off = 0;
  while (off < bytes.size()) {
    const ssize_t w = ::send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (w <= 0) return;  // the server closed on us: what it had read was enough for it
    off += static_cast<size_t>(w);
  }
}

// Sends `request`, ends the sending side and collects the reply. The server may close (or reset)
// the connection before it has read everything; the reply is then whatever arrived.
struct Outcome {
  bool closed = false;
  std::string reply;
};
Outcome send_and_collect(int fd, const std::string& request) {
  Outcome out;
  send_all(fd, request);
  ::shutdown(fd, SHUT_WR);
  out.closed = test::read_until_close(fd, &out.reply, kDeadline);
  ::close(fd);
  return out;
}

size_t count_in_dir(const char* dir) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir),
                                           std::filesystem::directory_iterator{}));
}

size_t thread_count() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("Threads:")) return std::stoul(line.substr(8));
  }
  return 0;
}

// Waits until `value()` is at most `limit`; returns the last value seen.
template <class F>
size_t wait_at_most(F value, size_t limit) {
  const auto deadline = Clock::now() + kDeadline;
  size_t v = value();
  while (v > limit && Clock::now() < deadline) {
    std::this_thread::sleep_for(20ms);
    v = value();
  }
  return v;
}

TEST(HostileClients, StatsKeepAnsweringThroughIdleLongAndGarbageClients) {
  // Each idle client costs a descriptor on both ends, in this one process.
  constexpr rlim_t kSpareFds = 1024;
  rlimit lim{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
  lim.rlim_cur = std::max(
      lim.rlim_cur, std::min(lim.rlim_max, 2 * static_cast<rlim_t>(kIdleClients) + kSpareFds));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
  const int idle_clients =
      static_cast<int>(std::min<rlim_t>(kIdleClients, (lim.rlim_cur - kSpareFds) / 2));
  if (idle_clients < kIdleClients / 4) GTEST_SKIP() << "descriptor limit too low: " << lim.rlim_cur;

  TestServer server;
  const int port = server.port();
  const int listen_fd = listening_fd(port);
  ASSERT_GE(listen_fd, 0);
  const size_t fds_before = count_in_dir("/proc/self/fd");
  const size_t threads_before = thread_count();
  const auto test_start = Clock::now();

  std::optional<StatsProbe> probe;
  probe.emplace(port);
  ASSERT_TRUE(probe->wait_for_probes(2));

  // Connected and silent: each holds a connection thread in its first read.
  std::vector<int> idle;
  for (int i = 0; i < idle_clients; ++i) {
    const int fd = connect_paced(port, listen_fd);
    ASSERT_GE(fd, 0) << "idle connection " << i;
    idle.push_back(fd);
  }
  ASSERT_TRUE(probe->wait_for_probes(3));

  // A megabyte without a line feed. A request line is cut after 4,095 bytes and the rest read as
  // header lines, so a valid start is still served once the client ends; pure junk is refused
  // after its first 4,095 bytes.
  {
    std::vector<std::thread> clients;
    std::vector<Outcome> served(kLongLineClients), refused(kLongLineClients);
    for (int i = 0; i < kLongLineClients; ++i) {
      const int a = connect_paced(port, listen_fd);
      const int b = connect_paced(port, listen_fd);
      ASSERT_GE(a, 0);
      ASSERT_GE(b, 0);
      clients.emplace_back([a, &out = served[i]] {
        out = send_and_collect(a, "GET /stats.json HTTP/1.1 " + std::string(kLongLine, 'x'));
      });
      clients.emplace_back(
          [b, &out = refused[i]] { out = send_and_collect(b, std::string(kLongLine, 'y')); });
    }
    ASSERT_TRUE(probe->wait_for_probes(2));
    for (auto& t : clients) t.join();
    for (int i = 0; i < kLongLineClients; ++i) {
      EXPECT_TRUE(served[i].closed);
      EXPECT_TRUE(is_stats_reply(served[i].reply)) << served[i].reply.substr(0, 200);
      EXPECT_TRUE(refused[i].closed);
      // Closing with unread bytes resets the connection, which may discard the reply in flight.
      EXPECT_TRUE(std::string(kInvalidHeader).starts_with(refused[i].reply))
          << refused[i].reply.substr(0, 200);
    }
  }

  // Garbage from many clients at the same moment: random bytes, line feeds, NULs, blanks.
  {
    std::vector<int> fds;
    for (int i = 0; i < kGarbageClients; ++i) {
      const int fd = connect_paced(port, listen_fd);
      ASSERT_GE(fd, 0) << "garbage client " << i;
      fds.push_back(fd);
    }
    std::mt19937 rng(7744);
    std::vector<std::string> garbage(kGarbageClients);
    for (std::string& g : garbage) {
      g.resize(std::uniform_int_distribution<size_t>(1, 16384)(rng));
      for (char& c : g) c = static_cast<char>(rng());
    }
    std::vector<Outcome> outcomes(kGarbageClients);
    std::atomic<bool> go{false};
    std::vector<std::thread> clients;
    for (int i = 0; i < kGarbageClients; ++i) {
      clients.emplace_back([&, i] {
        while (!go) std::this_thread::yield();
        outcomes[i] = send_and_collect(fds[i], garbage[i]);
      });
    }
    go = true;
    ASSERT_TRUE(probe->wait_for_probes(2));
    for (auto& t : clients) t.join();
    for (const Outcome& o : outcomes) {
      EXPECT_TRUE(o.closed);
      // Garbage is either not a request line (406) or names no known path (404).
      EXPECT_TRUE(o.reply.empty() || o.reply.starts_with("HTTP/1.0 40")) << o.reply.substr(0, 60);
    }
  }

  ASSERT_TRUE(probe->wait_for_probes(2));
  const std::vector<StatsProbe::Round> rounds = probe->rounds();
  // The clients leave at once: thousands of connection threads wake together. The probe must
  // still be answered, but the storm is ours, not a client's, so it is not timed.
  for (int fd : idle) ::close(fd);
  ASSERT_TRUE(probe->wait_for_probes(2));
  for (const auto& r : probe->rounds()) EXPECT_TRUE(r.ok);
  probe.reset();

  // Every hostile connection has its thread and socket back once its client is gone.
  EXPECT_LE(wait_at_most(thread_count, threads_before), threads_before);
  EXPECT_LE(wait_at_most([] { return count_in_dir("/proc/self/fd"); }, fds_before), fds_before);

  Clock::duration slowest{};
  for (const auto& r : rounds) {
    EXPECT_TRUE(r.ok);
    slowest = std::max(slowest, r.took);
  }
  const auto ms = [](Clock::duration d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
  };
  std::printf("%d idle clients; %zu /stats.json round trips in %lld ms, slowest %lld ms\n",
              idle_clients, rounds.size(), static_cast<long long>(ms(Clock::now() - test_start)),
              static_cast<long long>(ms(slowest)));
  if (!test::kSanitized) {
    EXPECT_LT(slowest, kProbeBound);
  }
}

TEST(HostileClients, StreamRequestsWithoutAUsableUrlEndTheirStreamOnly) {
  TestServer server;
  const std::string streaming =
      "HTTP/1.0 200 Streaming...\r\nContent-Type: application/octet-stream\r\n"
      "Connection: close\r\nAllow: GET, HEAD\r\nCache-Control: no-cache\r\n"
      "Access-Control-Allow-Origin: *\r\n\r\n";
  // No url, an empty one, an unknown scheme, a bare scheme shorter than its own prefix, a
  // placeholder host with no cache map, and a URL of control bytes with an absurd start.
  // Each but the first goes through the whole retry schedule (about 12 s), so they run at once.
  const std::vector<std::string> targets = {
      "/stream",
      "/stream?url=",
      "/stream?url=ftp%3A%2F%2Fx%2Fm.m3u8",
      "/stream?url=http",
      "/stream.ts?url=http%3A%2F%2F~%2Fa%2Fb%2Fm.m3u8",
      "/stream?url=%00%ff%0d%0a&startFrom=-99999999999999999999"};
  test::LogCapture::instance().clear();
  std::vector<std::string> replies(targets.size());
  std::vector<std::thread> clients;
  for (size_t i = 0; i < targets.size(); ++i) {
    clients.emplace_back([&, i] {
      replies[i] = test::exchange(server.port(), "GET " + targets[i] + " HTTP/1.1\r\n\r\n");
    });
  }
  for (auto& t : clients) t.join();
  for (size_t i = 0; i < targets.size(); ++i) EXPECT_EQ(replies[i], streaming) << targets[i];
  EXPECT_TRUE(
      test::LogCapture::instance().wait_for("start_refreshing failed!", kDeadline, targets.size()));
  EXPECT_TRUE(is_stats_reply(test::exchange(server.port(), "GET /stats.json HTTP/1.0\r\n\r\n")));
}

}  // namespace
}  // namespace skerir
