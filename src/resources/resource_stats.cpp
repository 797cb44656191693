#include "resources/resource_stats.h"

#include <unistd.h>

#include <csignal>

#include "main/response.h"
#include "util/log.h"

namespace skerir {

void Stats::zero() {
  for (auto* f : {&last_chunk_speed, &avg_speed, &cbuff_size, &selected_profile}) {
    f->store(0, std::memory_order_relaxed);
  }
  for (auto& h : speed_history) h.store(0, std::memory_order_relaxed);
}

bool Stats::record_segment(uint64_t speed, uint64_t buffered, uint64_t bandwidth) {
  constexpr auto relaxed = std::memory_order_relaxed;
  last_chunk_speed.store(speed, relaxed);
  cbuff_size.store(buffered >> 10, relaxed);
  selected_profile.store(bandwidth >> 10, relaxed);
  auto& h = speed_history;
  if (speed < bandwidth >> 11) {
    h[0].store(speed, relaxed);
    for (size_t i = 1; i < h.size(); ++i) h[i].store(speed >> 1, relaxed);
    avg_speed.store(speed, relaxed);
    return false;
  }
  for (size_t i = h.size() - 1; i > 0; --i) h[i].store(h[i - 1].load(relaxed), relaxed);
  h[0].store(speed, relaxed);
  avg_speed.store((3 * h[0].load(relaxed) + 2 * h[1].load(relaxed) + 2 * h[2].load(relaxed) +
                   h[3].load(relaxed) + h[4].load(relaxed)) /
                      9,
                  relaxed);
  return true;
}

ResourceStats::ResourceStats(int socket, Stats* stats) : socket_(socket), stats_(stats) {}

std::string ResourceStats::body(const Stats& s) {
  constexpr auto r = std::memory_order_relaxed;
  return compose("{\"last_chunk_speed\": ", s.last_chunk_speed.load(r),
                 ",\"avg_speed\": ", s.avg_speed.load(r), ",\"cbuff_size\": ", s.cbuff_size.load(r),
                 ",\"selected_profile\": ", s.selected_profile.load(r), "}\n");
}

void ResourceStats::serve() {
  std::signal(SIGPIPE, SIG_IGN);
  Response(socket_, 200, "OK", "application/json").send();
  const std::string json = body(*stats_);
  [[maybe_unused]] ssize_t n = ::write(socket_, json.data(), json.size());
}

}  // namespace skerir
