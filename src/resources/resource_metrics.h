// The "/metrics" endpoint: the process's counters, the number of open connections and
// running streams, and the "/stats.json" figures as gauges, in the Prometheus text exposition
// format 0.0.4. Runs once on the requesting connection's thread; never closes the socket.
#pragma once

#include <string>

namespace skerir {

class ConnectionRegistry;
struct Metrics;
struct Stats;

inline constexpr const char* kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

class ResourceMetrics {
 public:
  ResourceMetrics(int socket, const Stats* stats, const ConnectionRegistry* registry);
  void serve();

  // The exposition text: every family with its HELP and TYPE lines, ending in a newline.
  static std::string body(const Metrics& metrics, const Stats& stats,
                          const ConnectionRegistry& registry);

 private:
  int socket_;
  const Stats* stats_;
  const ConnectionRegistry* registry_;
};

}  // namespace skerir
