// Segment download throughput of the upstream client over loopback, beside a plain socket
// reader fetching the same bytes from the same origin in the same run.
//
//   plain      keep-alive GETs read with read() into one 128 KiB array and dropped
//   clear      UCurl::get_stream into a CBuffer that a second thread drains
//   encrypted  the same with AES-128-CBC segments decrypted on the way
//
// Usage: ucurl_bench [total MiB = 256] [segment MiB = 4] [rounds = 3] [reader]
// (naming a reader runs only that one, for profiling).
// Each round measures the readers back to back (plain->cbuffer is the plain reader writing into
// a drained CBuffer, which separates the buffer's cost from the client's). Reported: the best
// rate of each reader and the client's share of the plain reader's rate, as the median of the
// rounds (neighbours in time share the machine's load) and best against best. The client logs a few
// lines per segment, so standard output points at /dev/null while it runs and the report goes to
// the original one.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "buffer/cbuffer.h"
#include "support/scripted_origin.h"
#include "support/test_server.h"
#include "upstream/ucurl.h"

namespace {

using Clock = std::chrono::steady_clock;
using skerir::test::Reply;
using skerir::test::ScriptedOrigin;

const std::string kKey = "0123456789abcdef";

std::string make_body(size_t n) {
  std::string s(n, '\0');
  unsigned x = 12345;
  for (auto& c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  return s;
}

double cpu_seconds() {
  rusage ru{};
  ::getrusage(RUSAGE_SELF, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Reads one keep-alive response; its body goes into `buffer`, or is dropped when that is
// null. Returns the body length.
size_t read_response(int fd, std::vector<char>& buf, skerir::CBuffer* buffer) {
  std::string head;
  size_t end = std::string::npos;
  while ((end = head.find("\r\n\r\n")) == std::string::npos) {
    const ssize_t n = ::read(fd, buf.data(), 4096);
    if (n <= 0) throw std::runtime_error("plain reader: connection lost in headers");
    head.append(buf.data(), static_cast<size_t>(n));
  }
  const size_t at = head.find("Content-Length: ");
  if (at == std::string::npos) throw std::runtime_error("plain reader: no length");
  const size_t length = std::strtoull(head.c_str() + at + 16, nullptr, 10);
  size_t got = head.size() - end - 4;
  if (buffer != nullptr) buffer->write(head.data() + end + 4, got);
  while (got < length) {
    char* dst = buf.data();
    size_t room = buf.size();
    if (buffer != nullptr) room = buffer->write_get_available(&dst);
    const ssize_t n = ::read(fd, dst, std::min(room, length - got));
    if (n <= 0) throw std::runtime_error("plain reader: connection lost in body");
    if (buffer != nullptr) buffer->write_notify_written(static_cast<unsigned long>(n));
    got += static_cast<size_t>(n);
  }
  return length;
}

// Drains a CBuffer on its own thread, as the stream endpoint does, until told to stop and
// empty.
class Drainer {
 public:
  explicit Drainer(skerir::CBuffer& buffer)
      : buffer_(buffer), thread_([this] {
          for (;;) {
            char* p = nullptr;
            const unsigned long n = buffer_.read_get_available(&p);
            if (n == 0) {
              if (done_.load() && buffer_.size == 0) return;
              continue;
            }
            buffer_.read_notify_read(n);
            drained_.fetch_add(n, std::memory_order_relaxed);
          }
        }) {}
  ~Drainer() { finish(); }
  // Waits until everything written has been consumed; returns the bytes drained.
  uint64_t finish() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    return drained_.load();
  }

 private:
  skerir::CBuffer& buffer_;
  std::atomic<bool> done_{false};
  std::atomic<uint64_t> drained_{0};
  std::thread thread_;
};

// A plain keep-alive reader; with `into_buffer` its reads land in a drained CBuffer, which
// separates the cost of the buffer from the cost of the client. Timed up to the last byte
// read, like the client.
double plain_rate(const ScriptedOrigin& origin, const std::string& path, int segments,
                  bool into_buffer) {
  const int fd = skerir::test::connect_loopback(origin.port());
  if (fd < 0) throw std::runtime_error("plain reader: cannot connect");
  std::vector<char> buf(131072);
  const std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + origin.authority() +
                              "\r\nConnection: keep-alive\r\n\r\n";
  skerir::CBuffer buffer;
  std::optional<Drainer> drainer;
  if (into_buffer) drainer.emplace(buffer);
  size_t total = 0;
  const auto start = Clock::now();
  for (int i = 0; i < segments; ++i) {
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
      throw std::runtime_error("plain reader: send failed");
    }
    total += read_response(fd, buf, into_buffer ? &buffer : nullptr);
  }
  const double secs = seconds_since(start);
  ::close(fd);
  if (drainer && drainer->finish() != total) throw std::runtime_error("plain reader: lost bytes");
  return static_cast<double>(total) / secs / 1e6;
}

// The client fetching `segments` segments into a drained CBuffer, timed up to the last byte
// written (the drain that follows is the reader's business, and polls every 100 ms).
double client_rate(const ScriptedOrigin& origin, const std::string& path, int segments,
                   const std::string& key, size_t expected_per_segment) {
  skerir::CBuffer buffer;
  Drainer drainer(buffer);
  skerir::UCurl client;
  const auto start = Clock::now();
  for (int i = 0; i < segments; ++i) {
    double speed = 0;
    if (client.get_stream(origin.url(path), &buffer, false, speed, key, nullptr, 0) < 0) {
      throw std::runtime_error("client: segment failed");
    }
  }
  const double secs = seconds_since(start);
  const uint64_t expected = expected_per_segment * static_cast<uint64_t>(segments);
  if (drainer.finish() != expected) throw std::runtime_error("client: wrong byte count");
  return static_cast<double>(expected) / secs / 1e6;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

double best(const std::vector<double>& v) {
  return v.empty() ? 0 : *std::max_element(v.begin(), v.end());
}

}  // namespace

int main(int argc, char** argv) {
  const size_t total_mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 256;
  const size_t segment_mib = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 4;
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 3;
  const std::string only = argc > 4 ? argv[4] : "";
  const int segments = static_cast<int>(std::max<size_t>(1, total_mib / segment_mib));

  // Progress lines of the client go to /dev/null; the report to the real standard output.
  const int report_fd = ::dup(STDOUT_FILENO);
  const int null_fd = ::open("/dev/null", O_WRONLY);
  ::dup2(null_fd, STDOUT_FILENO);
  FILE* report = ::fdopen(report_fd, "w");

  const std::string body = make_body(segment_mib << 20);
  ScriptedOrigin origin;
  origin.set("/clear.ts", Reply::ok(body));
  Reply encrypted = Reply::ok(body);
  encrypted.encrypt_key = kKey;
  origin.set("/enc.ts", encrypted);

  // Readers of one round, measured back to back so that they share the machine's load.
  struct Reader {
    const char* name;
    std::function<double()> run;
    std::vector<double> rates;
    std::vector<double> cpu_rates;
  };
  std::vector<Reader> readers = {
      {"plain", [&] { return plain_rate(origin, "/clear.ts", segments, false); }, {}, {}},
      {"plain->cbuffer", [&] { return plain_rate(origin, "/clear.ts", segments, true); }, {}, {}},
      {"clear",
       [&] { return client_rate(origin, "/clear.ts", segments, "", body.size()); },
       {},
       {}},
      {"plain (cipher)", [&] { return plain_rate(origin, "/enc.ts", segments, false); }, {}, {}},
      {"encrypted",
       [&] { return client_rate(origin, "/enc.ts", segments, kKey, body.size()); },
       {},
       {}},
  };
  std::fprintf(report, "ucurl_bench: %d segments of %zu MiB (%zu MiB) per reader, %d rounds\n",
               segments, segment_mib, segments * segment_mib, rounds);
  std::vector<double> clear_share;
  std::vector<double> enc_share;
  try {
    for (int r = 0; r < rounds; ++r) {
      std::fprintf(report, "round %d:", r + 1);
      for (auto& reader : readers) {
        if (!only.empty() && only != reader.name) continue;
        const double cpu_start = cpu_seconds();
        reader.rates.push_back(reader.run());
        const double mb = static_cast<double>(segments) * static_cast<double>(body.size()) / 1e6;
        reader.cpu_rates.push_back(mb / (cpu_seconds() - cpu_start));
        std::fprintf(report, "  %s %.0f (cpu %.0f)", reader.name, reader.rates.back(),
                     reader.cpu_rates.back());
      }
      std::fprintf(report, "  (MB/s)\n");
      std::fflush(report);
      if (only.empty()) {
        clear_share.push_back(readers[2].rates.back() / readers[0].rates.back());
        enc_share.push_back(readers[4].rates.back() / readers[3].rates.back());
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(report, "ucurl_bench failed: %s\n", e.what());
    return 1;
  }
  for (const auto& reader : readers) {
    if (reader.rates.empty()) continue;
    std::fprintf(report, "best %-15s %6.0f MB/s, %6.0f MB per CPU-second\n", reader.name,
                 best(reader.rates), best(reader.cpu_rates));
  }
  if (!only.empty()) return 0;
  // Encrypted throughput counts plaintext bytes; its plain reference reads the cipher bytes.
  std::fprintf(report, "cpu:  clear / plain %.0f %%, encrypted / plain over cipher %.0f %%\n",
               100.0 * best(readers[2].cpu_rates) / best(readers[0].cpu_rates),
               100.0 * best(readers[4].cpu_rates) / best(readers[3].cpu_rates));
  std::fprintf(
      report,
      "clear / plain:                 median %.0f %%, best-vs-best %.0f %% (target >= 70 %%)\n",
      100.0 * median(clear_share), 100.0 * best(readers[2].rates) / best(readers[0].rates));
  std::fprintf(
      report,
      "encrypted / plain over cipher: median %.0f %%, best-vs-best %.0f %% (target >= 50 %%)\n",
      100.0 * median(enc_share), 100.0 * best(readers[4].rates) / best(readers[3].rates));
  std::fclose(report);
  ::close(null_fd);
  return 0;
}
