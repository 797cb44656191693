// The "/streams.json" endpoint: one JSON object per running stream, in start order.
// Runs once on the requesting connection's thread; never closes the socket.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace skerir {

class ConnectionRegistry;
struct StreamStatus;

class ResourceStreams {
 public:
  ResourceStreams(int socket, const ConnectionRegistry* registry);
  void serve();

  // The JSON body, newline included: an array of objects with the fields id, client, url,
  // start_time (Unix seconds), selected_bandwidth (bit/s), bytes_sent, buffer_bytes,
  // last_segment_speed (kbit/s), segments_fetched and segments_failed.
  static std::string body(const std::vector<std::shared_ptr<const StreamStatus>>& streams);

 private:
  int socket_;
  const ConnectionRegistry* registry_;
};

// A stream URL may end in "|Name=Value&Name=Value": request headers for the origin, often
// credentials. Every value after the first "|" is replaced by "…" for display.
std::string mask_header_values(const std::string& url);

}  // namespace skerir
