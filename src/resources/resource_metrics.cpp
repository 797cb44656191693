#include "resources/resource_metrics.h"

#include <csignal>
#include <initializer_list>
#include <utility>

#include "main/response.h"
#include "resources/connection_registry.h"
#include "resources/resource_stats.h"
#include "util/log.h"
#include "util/metrics.h"

namespace skerir {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

// One metric family: its HELP and TYPE lines, then one sample per label value ("" for a
// sample without labels).
void family(std::string* out, const char* name, const char* type, const char* help,
            std::initializer_list<std::pair<const char*, uint64_t>> samples) {
  *out += compose("# HELP ", name, " ", help, "\n# TYPE ", name, " ", type, "\n");
  for (const auto& [labels, value] : samples) {
    *out += compose(name, labels, " ", value, "\n");
  }
}

uint64_t value(const std::atomic<uint64_t>& a) { return a.load(kRelaxed); }

}  // namespace

ResourceMetrics::ResourceMetrics(int socket, const Stats* stats, const ConnectionRegistry* registry)
    : socket_(socket), stats_(stats), registry_(registry) {}

std::string ResourceMetrics::body(const Metrics& m, const Stats& s,
                                  const ConnectionRegistry& registry) {
  const auto& up = m.upstream_requests;
  const auto outcome = [&](UpstreamOutcome o) { return value(up[static_cast<size_t>(o)]); };
  std::string out;
  family(&out, "skerir_streams_started_total", "counter", "Streams started.",
         {{"", value(m.streams_started)}});
  family(&out, "skerir_streams_active", "gauge", "Streams running now.",
         {{"", registry.stream_count()}});
  family(&out, "skerir_connections_open", "gauge", "Client connections being served now.",
         {{"", registry.connection_count()}});
  family(&out, "skerir_client_bytes_sent_total", "counter", "Stream bytes written to clients.",
         {{"", value(m.client_bytes_sent)}});
  family(&out, "skerir_segments_fetched_total", "counter", "Media segments downloaded.",
         {{"", value(m.segments_fetched)}});
  family(&out, "skerir_segments_failed_total", "counter",
         "Media segments given up after every retry.", {{"", value(m.segments_failed)}});
  family(&out, "skerir_segment_resumes_total", "counter",
         "Range requests continuing a segment whose download was cut.",
         {{"", value(m.segment_resumes)}});
  family(&out, "skerir_upstream_requests_total", "counter",
         "Upstream request attempts by how they ended.",
         {{"{outcome=\"ok\"}", outcome(UpstreamOutcome::kOk)},
          {"{outcome=\"http_error\"}", outcome(UpstreamOutcome::kHttpError)},
          {"{outcome=\"connect_error\"}", outcome(UpstreamOutcome::kConnectError)},
          {"{outcome=\"send_error\"}", outcome(UpstreamOutcome::kSendError)},
          {"{outcome=\"receive_error\"}", outcome(UpstreamOutcome::kReceiveError)},
          {"{outcome=\"url_error\"}", outcome(UpstreamOutcome::kUrlError)}});
  family(&out, "skerir_key_fetches_total", "counter", "AES-128 key downloads.",
         {{"", value(m.key_fetches)}});
  family(&out, "skerir_variant_switches_total", "counter",
         "Changes of the selected variant while streaming, by direction.",
         {{"{direction=\"up\"}", value(m.variant_switches_up)},
          {"{direction=\"down\"}", value(m.variant_switches_down)}});
  family(&out, "skerir_cache_servers_invalidated_total", "counter",
         "Cache servers marked dead after a failure.", {{"", value(m.cache_servers_invalidated)}});
  family(&out, "skerir_stats_last_chunk_speed_kbps", "gauge",
         "Download speed of the latest segment of any stream, kbit/s (as in /stats.json).",
         {{"", value(s.last_chunk_speed)}});
  family(&out, "skerir_stats_avg_speed_kbps", "gauge",
         "Weighted average segment speed that variant selection uses, kbit/s.",
         {{"", value(s.avg_speed)}});
  family(&out, "skerir_stats_cbuff_size_kib", "gauge",
         "Stream buffer fill last reported by any stream, KiB.", {{"", value(s.cbuff_size)}});
  family(&out, "skerir_stats_selected_profile", "gauge",
         "Bandwidth of the latest selected variant, bit/s shifted right by 10.",
         {{"", value(s.selected_profile)}});
  return out;
}

void ResourceMetrics::serve() {
  std::signal(SIGPIPE, SIG_IGN);
  Response(socket_, 200, "OK", kMetricsContentType).send();
  send_body(socket_, body(metrics(), *stats_, *registry_));
}

}  // namespace skerir
