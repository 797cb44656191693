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
