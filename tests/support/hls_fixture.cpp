#include "support/hls_fixture.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "support/log_capture.h"
#include "support/test_server.h"

namespace skerir::test {

std::string segment_bytes(int variant, uint64_t sequence, size_t size) {
  const std::string tag = "v" + std::to_string(variant) + "s" + std::to_string(sequence) + ":";
  std::string out;
  out.reserve(size);
  for (uint32_t i = 0; out.size() < size; ++i) {
    out += tag;
    out.push_back(static_cast<char>('A' + i % 26));
  }
  out.resize(size);
  return out;
}

std::string url_encode(const std::string& text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string media_playlist(const ScriptedOrigin& origin, const MediaPlaylistPlan& plan) {
  std::string text =
      "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:" + std::to_string(plan.target_duration) +
      "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(plan.media_sequence) + "\n";
  std::string key_in_force;
  for (const SegmentPlan& s : plan.segments) {
    if (s.key_path != key_in_force) {
      text += s.key_path.empty()
                  ? "#EXT-X-KEY:METHOD=NONE\n"
                  : "#EXT-X-KEY:METHOD=AES-128,URI=\"" + origin.url(s.key_path) + "\"\n";
      key_in_force = s.key_path;
    }
    text += "#EXTINF:" + std::to_string(plan.target_duration) + ".0,\n" + origin.url(s.path) + "\n";
  }
  if (plan.endlist) text += "#EXT-X-ENDLIST\n";
  return text;
}

std::string master_playlist(const ScriptedOrigin& origin,
                            const std::vector<std::pair<uint64_t, std::string>>& variants) {
  std::string text = "#EXTM3U\n";
  for (const auto& [bandwidth, path] : variants) {
    text += "#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=" + std::to_string(bandwidth) +
            ",RESOLUTION=640x360\n" + origin.url(path) + "\n";
  }
  return text;
}

std::string Presentation::playlist_path(int v) const {
  return "/" + name + "/v" + std::to_string(v) + ".m3u8";
}

std::string Presentation::segment_path(int v, uint64_t seq) const {
  return "/" + name + "/v" + std::to_string(v) + "/" + std::to_string(seq) + ".ts";
}

void Presentation::install(ScriptedOrigin& origin) const {
  std::vector<std::pair<uint64_t, std::string>> list;
  for (size_t v = 0; v < bandwidths.size(); ++v) {
    const int vi = static_cast<int>(v);
    list.emplace_back(bandwidths[v], playlist_path(vi));
    MediaPlaylistPlan plan;
    plan.media_sequence = first_sequence;
    plan.target_duration = target_duration;
    plan.endlist = endlist;
    for (int i = 0; i < count; ++i) {
      const uint64_t seq = first_sequence + static_cast<uint64_t>(i);
      plan.segments.push_back({seq, segment_path(vi, seq), ""});
      origin.set(segment_path(vi, seq), Reply::ok(segment_bytes(vi, seq, segment_size)));
    }
    origin.set(playlist_path(vi), Reply::ok(media_playlist(origin, plan)));
  }
  origin.set(master_path(), Reply::ok(master_playlist(origin, list)));
}

bool Presentation::parse_segment_path(const std::string& path, int* v, uint64_t* seq) const {
  const std::string prefix = "/" + name + "/v";
  if (path.rfind(prefix, 0) != 0) return false;
  const size_t slash = path.find('/', prefix.size());
  const size_t dot = path.rfind(".ts");
  if (slash == std::string::npos || dot == std::string::npos || dot < slash) return false;
  *v = std::stoi(path.substr(prefix.size(), slash - prefix.size()));
  *seq = std::stoull(path.substr(slash + 1, dot - slash - 1));
  return true;
}

Delivery delivered_segments(const ScriptedOrigin& origin, const Presentation& presentation) {
  Delivery d;
  const std::string from = " from " + origin.url("");
  for (const std::string& line : LogCapture::instance().lines(LogStream::out)) {
    if (line.rfind("got chunk (seq ", 0) != 0) continue;
    const size_t at = line.find(from);
    const size_t end = line.find(" with size ");
    if (at == std::string::npos || end == std::string::npos) continue;
    const std::string path = line.substr(at + from.size(), end - at - from.size());
    int v = 0;
    uint64_t seq = 0;
    if (!presentation.parse_segment_path(path, &v, &seq)) continue;
    d.segments.emplace_back(v, seq);
    d.bytes += segment_bytes(v, seq, presentation.segment_size);
  }
  return d;
}

StreamResult split_reply(const std::string& raw, bool closed) {
  StreamResult r;
  r.closed = closed;
  const size_t end = raw.find("\r\n\r\n");
  if (end == std::string::npos) {
    r.head = raw;
  } else {
    r.head = raw.substr(0, end + 4);
    r.body = raw.substr(end + 4);
  }
  return r;
}

StreamResult fetch_stream(int port, const std::string& master_url,
                          std::chrono::milliseconds timeout, const std::string& extra_query) {
  const int fd = connect_loopback(port);
  if (fd < 0) throw std::runtime_error("cannot connect to the test server");
  const std::string request =
      "GET /stream?url=" + url_encode(master_url) + extra_query + " HTTP/1.1\r\n\r\n";
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    ::close(fd);
    throw std::runtime_error("cannot send the request");
  }
  std::string raw;
  const bool closed = read_until_close(fd, &raw, timeout);
  ::close(fd);
  return split_reply(raw, closed);
}

}  // namespace skerir::test
