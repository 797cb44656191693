#include "support/stream_load.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "support/hls_fixture.h"
#include "support/test_server.h"

namespace skerir::test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kStatusStall = 7s;  // longer than the 6 s wait for a status line
constexpr auto kBodyStall = 3s;    // longer than the 2 s wait for body bytes
constexpr size_t kFastRead = 64 * 1024;
constexpr size_t kSlowRead = 2048;
// 2 KiB every 20 ms at most: about 100 KB/s, well above the rate at which a 128 KiB write
// would outlast the server's 10 s send time-out.
constexpr auto kSlowPause = 20ms;
constexpr int kSlowReceiveBuffer = 16 * 1024;  // so the server's side fills up sooner
constexpr auto kSlotStagger = 10ms;            // spreads the first connects over two seconds
constexpr auto kTickPeriod = 100ms;
constexpr int kTargetDuration = 2;

const char kStreamHead[] = "HTTP/1.0 200 Streaming...\r\n";

// Answers that are not HTTP, or not what they claim to be. Each ends its connection.
const char* const kGarbage[] = {
    "garbage\r\n\r\n",
    "HTTP/1.1\r\n\r\n",
    "HTTP/9.9 200 OK\r\nContent-Length: 3\r\n\r\nabc",
    "HTTP/1.1 200 OK\r\n\r\nno length",
    "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\nabc",
    "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\nshort",
    "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
    "",
};

// Relative weights of the faults, in enum order; clean streams are the largest share so that
// many streams are judged byte for byte.
constexpr int kFaultWeights[kLoadFaultKinds] = {28, 10, 10, 7, 7, 7, 8, 8, 7, 8};

LoadFault draw_fault(std::mt19937_64& rng) {
  std::discrete_distribution<int> d(std::begin(kFaultWeights), std::end(kFaultWeights));
  return static_cast<LoadFault>(d(rng));
}

int pick(std::mt19937_64& rng, int lo, int hi) {
  return std::uniform_int_distribution<int>(lo, hi)(rng);
}

Reply garbage_reply(std::mt19937_64& rng) {
  switch (pick(rng, 0, 3)) {
    case 0:
      return Reply::status_only(404);
    case 1:
      return Reply::status_only(500);
    default:
      return Reply::raw_bytes(kGarbage[pick(rng, 0, std::size(kGarbage) - 1)]);
  }
}

// Inserts each junk line after a random line of `text` other than the first.
std::string with_junk(const std::string& text, const std::vector<std::string>& junk,
                      std::mt19937_64& rng) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t eol = text.find('\n', at);
    lines.push_back(text.substr(at, eol - at));
    at = eol == std::string::npos ? text.size() : eol + 1;
  }
  for (const std::string& j : junk) {
    const int after = pick(rng, 0, static_cast<int>(lines.size()) - 1);
    lines.insert(lines.begin() + after + 1, j);
  }
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

// Media playlist text with segment URLs on `base` ("http://host:port" or "http://@").
std::string media_text(const std::string& base, const Presentation& p, int v) {
  std::string text =
      "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:" + std::to_string(p.target_duration) +
      "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(p.first_sequence) + "\n";
  for (int i = 0; i < p.count; ++i) {
    text += "#EXTINF:" + std::to_string(p.target_duration) + ".0,\n" + base +
            p.segment_path(v, p.first_sequence + static_cast<uint64_t>(i)) + "\n";
  }
  return text + "#EXT-X-ENDLIST\n";
}

std::string master_text(const std::string& base, const Presentation& p) {
  std::string text = "#EXTM3U\n";
  for (size_t v = 0; v < p.bandwidths.size(); ++v) {
    text += "#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=" + std::to_string(p.bandwidths[v]) +
            ",RESOLUTION=640x360\n" + base + p.playlist_path(static_cast<int>(v)) + "\n";
  }
  return text;
}

}  // namespace

const char* fault_name(LoadFault fault) {
  static const char* const names[kLoadFaultKinds] = {
      "none",     "slow reader",    "client vanishes", "stall before headers", "stall mid-body",
      "cut body", "segment status", "playlist status", "junk lines",           "cache server dies"};
  return names[static_cast<size_t>(fault)];
}

uint64_t fnv1a(uint64_t hash, const char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    hash ^= static_cast<unsigned char>(data[i]);
    hash *= 1099511628211ull;
  }
  return hash;
}

struct StreamLoad::Installed {
  std::string master_url;
  std::vector<std::string> paths;
  size_t segment_size = 0;
  int segments = 0;
  bool slow = false;
  std::optional<uint64_t> vanish_after;  // body bytes after which the client closes
  bool reset = false;                    // ... with a reset instead of a FIN
};

StreamLoad::StreamLoad(LoadPlan plan)
    : plan_(plan),
      cache_b_(std::make_unique<ScriptedOrigin>()),
      cache_a_(std::make_unique<ScriptedOrigin>()) {}

StreamLoad::~StreamLoad() = default;

bool StreamLoad::install_cache_maps(int port) {
  std::string ring;
  {
    std::lock_guard lock(cache_mutex_);
    ring = cache_a_->authority() + "," + cache_b_->authority();
  }
  const std::string reply =
      test::exchange(port, "GET /update-cache-map?chunk=" + url_encode(ring) +
                               "&playlist=" + url_encode(ring) + " HTTP/1.1\r\n\r\n");
  return reply.find("\r\n\r\n\"OK\"") != std::string::npos;
}

StreamLoad::Installed StreamLoad::install(const std::string& name, LoadFault fault,
                                          std::mt19937_64& rng) {
  Presentation p;
  p.name = name;
  p.target_duration = kTargetDuration;
  if (pick(rng, 0, 1) == 0) {
    p.bandwidths = {static_cast<uint64_t>(400000 + pick(rng, 0, 1000))};
  } else {
    p.bandwidths = {300000, 900000};
  }
  const bool slow = fault == LoadFault::kSlowReader;
  p.count = slow ? pick(rng, 6, 12) : pick(rng, 3, 8);
  p.segment_size =
      static_cast<size_t>((slow ? pick(rng, 32, 64) : pick(rng, 8, 64)) * 1024 + pick(rng, 0, 999));
  const int variants = static_cast<int>(p.bandwidths.size());

  Installed in;
  in.segment_size = p.segment_size;
  in.segments = p.count;
  in.slow = slow;
  const bool cache = fault == LoadFault::kCacheServer;
  const std::string direct = origin_.url("");
  const std::string playlist_base = cache ? "http://~" : direct;
  in.master_url = playlist_base + p.master_path();

  std::map<std::string, Reply> standing;
  std::vector<std::tuple<std::string, Reply, size_t>> once;
  for (int v = 0; v < variants; ++v) {
    for (int i = 0; i < p.count; ++i) {
      const uint64_t seq = p.first_sequence + static_cast<uint64_t>(i);
      standing[p.segment_path(v, seq)] = Reply::ok(segment_bytes(v, seq, p.segment_size));
    }
  }
  std::vector<std::string> media(static_cast<size_t>(variants));
  for (int v = 0; v < variants; ++v) media[v] = media_text(cache ? "http://@" : direct, p, v);
  std::string master = master_text(playlist_base, p);

  // Segment faults hit the same sequence number in every variant, whichever one is playing.
  const uint64_t k = p.first_sequence + static_cast<uint64_t>(pick(rng, 0, p.count - 1));
  switch (fault) {
    case LoadFault::kNone:
    case LoadFault::kSlowReader:
    case LoadFault::kCacheServer:
      break;
    case LoadFault::kClientVanishes: {
      const uint64_t total = static_cast<uint64_t>(p.count) * p.segment_size;
      in.vanish_after =
          pick(rng, 0, 3) == 0 ? 0 : std::uniform_int_distribution<uint64_t>(1, total - 1)(rng);
      // Only once body bytes have arrived: a reset that overtakes the request makes the
      // server lose the request, and then no stream starts at all.
      in.reset = *in.vanish_after > 0 && pick(rng, 0, 2) == 0;
      break;
    }
    case LoadFault::kStallBeforeHeaders:
      if (pick(rng, 0, 9) < 7) {
        for (int v = 0; v < variants; ++v) {
          Reply r = standing[p.segment_path(v, k)];
          r.stall_before_headers = kStatusStall;
          once.emplace_back(p.segment_path(v, k), r, 1);
        }
      } else if (pick(rng, 0, 1) == 0) {
        Reply r = Reply::ok(master);
        r.stall_before_headers = kStatusStall;
        once.emplace_back(p.master_path(), r, 1);
      } else {
        Reply r = Reply::ok(media[0]);
        r.stall_before_headers = kStatusStall;
        once.emplace_back(p.playlist_path(0), r, 1);
      }
      break;
    case LoadFault::kStallMidBody:
      for (int v = 0; v < variants; ++v) {
        Reply r = standing[p.segment_path(v, k)];
        r.stall_at = p.segment_size / 2;
        r.stall_for = kBodyStall;
        once.emplace_back(p.segment_path(v, k), r, 1);
      }
      break;
    case LoadFault::kCutBody: {
      const size_t cut = static_cast<size_t>(pick(rng, 1, static_cast<int>(p.segment_size) - 1));
      for (int v = 0; v < variants; ++v) standing[p.segment_path(v, k)].close_after = cut;
      break;
    }
    case LoadFault::kSegmentStatus: {
      const Reply r = garbage_reply(rng);
      for (int v = 0; v < variants; ++v) standing[p.segment_path(v, k)] = r;
      break;
    }
    case LoadFault::kPlaylistStatus: {
      Reply r =
          pick(rng, 0, 4) == 0 ? Reply::ok("<html>not a playlist</html>\n") : garbage_reply(rng);
      switch (pick(rng, 0, 2)) {
        case 0:
          standing[p.master_path()] = r;
          break;
        case 1:
          standing[p.playlist_path(0)] = r;
          break;
        default:  // every media playlist fails twice, then recovers
          for (int v = 0; v < variants; ++v) once.emplace_back(p.playlist_path(v), r, 2);
          break;
      }
      break;
    }
    case LoadFault::kJunkLines: {
      const std::string bogus_playlist = direct + "/" + name + "/bogus.m3u8";
      const std::string bogus_segment = direct + "/" + name + "/bogus.ts";
      const std::vector<std::string> master_junk = {
          "junk line without a scheme", "#EXT-X-UNKNOWN-TAG:1", "", bogus_playlist, "\t  "};
      const std::vector<std::string> media_junk = {"not-a-segment-url", bogus_segment,
                                                   "#EXT-X-UNKNOWN-TAG", "#EXTINF:bogus", ""};
      const int where = pick(rng, 0, 2);  // master, media, or both
      if (where != 1) {
        std::vector<std::string> junk;
        for (int j = pick(rng, 1, 3); j > 0; --j) junk.push_back(master_junk[pick(rng, 0, 4)]);
        master = with_junk(master, junk, rng);
      }
      if (where != 0) {
        for (int v = 0; v < variants; ++v) {
          std::vector<std::string> junk;
          for (int j = pick(rng, 1, 2); j > 0; --j) junk.push_back(media_junk[pick(rng, 0, 4)]);
          media[v] = with_junk(media[v], junk, rng);
        }
      }
      break;
    }
  }
  if (!standing.count(p.master_path())) standing[p.master_path()] = Reply::ok(master);
  for (int v = 0; v < variants; ++v) {
    if (!standing.count(p.playlist_path(v))) standing[p.playlist_path(v)] = Reply::ok(media[v]);
  }

  auto put = [&](ScriptedOrigin& o) {
    for (const auto& [path, reply] : standing) o.set(path, reply);
    for (const auto& [path, reply, times] : once) o.push_next(path, reply, times);
  };
  if (cache) {
    std::lock_guard lock(cache_mutex_);
    if (cache_a_) put(*cache_a_);
    put(*cache_b_);
  } else {
    put(origin_);
  }
  for (const auto& entry : standing) in.paths.push_back(entry.first);
  return in;
}

void StreamLoad::uninstall(const Installed& in) {
  for (const std::string& path : in.paths) origin_.remove(path);
  std::lock_guard lock(cache_mutex_);
  for (const std::string& path : in.paths) {
    if (cache_a_) cache_a_->remove(path);
    cache_b_->remove(path);
  }
}

StreamRecord StreamLoad::run_stream(int port, const std::string& name, uint64_t seed, bool warm) {
  std::seed_seq seq{static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32)};
  std::mt19937_64 rng(seq);
  StreamRecord rec;
  rec.name = name;
  rec.fault = warm ? LoadFault::kNone : draw_fault(rng);
  const Installed in = install(name, rec.fault, rng);
  rec.segment_size = in.segment_size;
  rec.segments = in.segments;
  rec.body_hash = kFnvBasis;

  const auto began = Clock::now();
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd >= 0 && in.slow) {
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSlowReceiveBuffer, sizeof(kSlowReceiveBuffer));
  }
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
    if (fd >= 0) ::close(fd);
    uninstall(in);
    return rec;
  }
  const std::string request =
      "GET /stream?url=" + url_encode(in.master_url) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t w = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (w <= 0) break;
    sent += static_cast<size_t>(w);
  }
  rec.connected = sent == request.size();

  std::string head;
  bool in_body = false;
  std::vector<char> buf(in.slow ? kSlowRead : kFastRead);
  const auto deadline = Clock::now() + plan_.stream_deadline;
  while (rec.connected) {
    if (in.vanish_after && rec.body_bytes >= *in.vanish_after) {
      rec.vanished = true;
      break;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      rec.timed_out = true;
      break;
    }
    pollfd pfd{fd, POLLIN, 0};
    const int r = ::poll(&pfd, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r == 0) continue;  // the deadline test above ends the wait
    size_t want = buf.size();
    if (in.vanish_after && in_body) {
      want = static_cast<size_t>(std::min<uint64_t>(want, *in.vanish_after - rec.body_bytes));
    }
    const ssize_t n = ::read(fd, buf.data(), want);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) {
      rec.closed = true;  // end of stream, or reset by the server
      break;
    }
    const char* data = buf.data();
    size_t size = static_cast<size_t>(n);
    if (!in_body) {
      head.append(data, size);
      const size_t end = head.find("\r\n\r\n");
      if (end == std::string::npos) continue;
      in_body = true;
      rec.head_ok = head.rfind(kStreamHead, 0) == 0;
      rec.body_hash = fnv1a(rec.body_hash, head.data() + end + 4, head.size() - end - 4);
      rec.body_bytes += head.size() - end - 4;
      continue;
    }
    rec.body_hash = fnv1a(rec.body_hash, data, size);
    rec.body_bytes += size;
    if (in.slow) std::this_thread::sleep_for(kSlowPause);
  }
  if (in.reset) {
    const linger hard{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
  }
  ::close(fd);
  rec.seconds = std::chrono::duration<double>(Clock::now() - began).count();
  uninstall(in);
  return rec;
}

void StreamLoad::warm_up(int port, int slots, std::chrono::seconds duration) {
  const auto end = Clock::now() + duration;
  std::vector<std::vector<StreamRecord>> got(static_cast<size_t>(slots));
  std::vector<std::thread> clients;
  for (int s = 0; s < slots; ++s) {
    clients.emplace_back([&, s] {
      // Staggered like the load's slots: a burst of simultaneous connects overflows the
      // listener's short accept queue, and the kernel then drops some of them.
      std::this_thread::sleep_for(kSlotStagger * s);
      for (uint64_t i = 0; Clock::now() < end; ++i) {
        got[static_cast<size_t>(s)].push_back(
            run_stream(port, "w" + std::to_string(s) + "n" + std::to_string(i),
                       ~plan_.seed ^ (static_cast<uint64_t>(s) << 32) ^ (i * 0x9E3779B9u), false));
      }
    });
  }
  for (auto& c : clients) c.join();
  for (const auto& recs : got) {
    warm_up_streams_ += recs.size();
    records_.insert(records_.end(), recs.begin(), recs.end());
  }
}

void StreamLoad::kill_cache_server() {
  std::lock_guard lock(cache_mutex_);
  const int port = cache_a_->port();
  cache_a_.reset();  // wakes and closes every connection it had
  // Keeps the port refusing, so nothing else on the machine can answer in its place.
  try {
    cache_a_hold_ = std::make_unique<RefusingPort>(port);
  } catch (const std::exception&) {
  }
  cache_killed_ = true;
}

void StreamLoad::run(int port, const std::function<void()>& tick) {
  const auto start = Clock::now();
  const auto end = start + plan_.duration;
  const size_t slots = static_cast<size_t>(plan_.slots);
  std::vector<std::vector<StreamRecord>> per_slot(slots);
  std::atomic<size_t> done{0};
  std::vector<std::thread> threads;
  for (size_t s = 0; s < slots; ++s) {
    threads.emplace_back([&, s] {
      std::this_thread::sleep_for(kSlotStagger * s);
      for (uint64_t i = 0; Clock::now() < end; ++i) {
        const uint64_t seed = plan_.seed ^ (static_cast<uint64_t>(s) << 32) ^ (i * 0x9E3779B9u);
        per_slot[s].push_back(
            run_stream(port, "s" + std::to_string(s) + "n" + std::to_string(i), seed, false));
      }
      done.fetch_add(1);
    });
  }
  while (done.load() < slots) {
    tick();
    if (!cache_killed_ && Clock::now() >= start + plan_.cache_death_at) kill_cache_server();
    std::this_thread::sleep_for(kTickPeriod);
  }
  for (auto& t : threads) t.join();
  tick();
  for (const auto& recs : per_slot) records_.insert(records_.end(), recs.begin(), recs.end());
}

size_t StreamLoad::connected() const {
  size_t n = 0;
  for (const auto& r : records_) n += r.connected ? 1 : 0;
  return n;
}

std::array<size_t, kLoadFaultKinds> StreamLoad::streams_per_fault() const {
  std::array<size_t, kLoadFaultKinds> n{};
  for (const auto& r : records_) {
    if (r.connected) ++n[static_cast<size_t>(r.fault)];
  }
  return n;
}

bool StreamLoad::wait_for_idle_origins(std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  auto left = [&] {
    return std::max(std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
  };
  if (!origin_.wait_for_no_connections(left())) return false;
  if (!cache_b_->wait_for_no_connections(left())) return false;
  std::lock_guard lock(cache_mutex_);
  return !cache_a_ || cache_a_->wait_for_no_connections(left());
}

LoadVerdict StreamLoad::judge(const std::vector<std::string>& out_lines) const {
  // The segments each presentation delivered, in the order the server reported them.
  std::map<std::string, std::vector<std::pair<int, uint64_t>>> delivered;
  const std::string from = " from " + origin_.url("");
  for (const std::string& line : out_lines) {
    if (line.rfind("got chunk (seq ", 0) != 0) continue;
    const size_t at = line.find(from);
    const size_t end = line.find(" with size ");
    if (at == std::string::npos || end == std::string::npos || end < at) continue;
    const std::string path = line.substr(at + from.size(), end - at - from.size());
    const size_t slash = path.find('/', 1);
    if (slash == std::string::npos) continue;
    Presentation p;
    p.name = path.substr(1, slash - 1);
    int v = 0;
    uint64_t seq = 0;
    if (p.parse_segment_path(path, &v, &seq)) delivered[p.name].emplace_back(v, seq);
  }

  LoadVerdict verdict;
  for (const StreamRecord& r : records_) {
    if (r.fault != LoadFault::kNone && r.fault != LoadFault::kSlowReader) continue;
    if (!r.connected || !r.closed) continue;
    ++verdict.clean;
    const auto& segs = delivered[r.name];
    uint64_t hash = kFnvBasis;
    uint64_t bytes = 0;
    bool ordered = true;
    for (size_t i = 0; i < segs.size(); ++i) {
      const std::string b = segment_bytes(segs[i].first, segs[i].second, r.segment_size);
      hash = fnv1a(hash, b.data(), b.size());
      bytes += b.size();
      if (i > 0 && segs[i].second <= segs[i - 1].second) ordered = false;
    }
    if (r.head_ok && ordered && bytes == r.body_bytes && hash == r.body_hash) {
      ++verdict.byte_exact;
      if (segs.size() == static_cast<size_t>(r.segments)) ++verdict.complete;
    } else if (verdict.failures.size() < 10) {
      verdict.failures.push_back(
          r.name + " (" + fault_name(r.fault) + "): received " + std::to_string(r.body_bytes) +
          " bytes, the server reported " + std::to_string(segs.size()) + " segments of " +
          std::to_string(bytes) + " bytes" + (ordered ? "" : ", out of order") +
          (r.head_ok ? "" : ", wrong reply header"));
    }
  }
  return verdict;
}

}  // namespace skerir::test
