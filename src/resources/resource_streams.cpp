#include "resources/resource_streams.h"

#include <csignal>

#include "main/response.h"
#include "resources/connection_registry.h"
#include "util/log.h"
#include "util/strings.h"

namespace skerir {

ResourceStreams::ResourceStreams(int socket, const ConnectionRegistry* registry)
    : socket_(socket), registry_(registry) {}

std::string ResourceStreams::body(const std::vector<std::shared_ptr<const StreamStatus>>& streams) {
  constexpr auto r = std::memory_order_relaxed;
  std::string out = "[";
  for (const auto& s : streams) {
    const StreamCounters& c = s->counters;
    out += compose(
        out.size() > 1 ? ",\n" : "\n", "{\"id\":", s->id, ",\"client\":\"", json_escape(s->client),
        "\",\"url\":\"", json_escape(s->url), "\",\"start_time\":", s->started,
        ",\"selected_bandwidth\":", c.selected_bandwidth.load(r),
        ",\"bytes_sent\":", c.bytes_sent.load(r), ",\"buffer_bytes\":", c.buffer_bytes.load(r),
        ",\"last_segment_speed\":", c.last_segment_speed.load(r),
        ",\"segments_fetched\":", c.segments_fetched.load(r),
        ",\"segments_failed\":", c.segments_failed.load(r), "}");
  }
  out += streams.empty() ? "]\n" : "\n]\n";
  return out;
}

void ResourceStreams::serve() {
  std::signal(SIGPIPE, SIG_IGN);
  Response(socket_, 200, "OK", "application/json").send();
  send_body(socket_, body(registry_->streams()));
}

std::string mask_header_values(const std::string& url) {
  const size_t bar = url.find('|');
  if (bar == std::string::npos) return url;
  std::string out = url.substr(0, bar + 1);
  bool in_value = false;
  for (size_t i = bar + 1; i < url.size(); ++i) {
    const char c = url[i];
    if (c == '&' || c == '|') {
      in_value = false;
      out += c;
    } else if (in_value) {
      continue;
    } else {
      out += c;
      if (c == '=') {
        out += "…";
        in_value = true;
      }
    }
  }
  return out;
}

}  // namespace skerir
