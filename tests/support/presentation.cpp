#include "support/presentation.h"

#include <unistd.h>

#include "buffer/cbuffer.h"
#include "support/test_server.h"

namespace skerir::test {

std::string pattern(uint64_t offset, size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i)
    s[i] = static_cast<char>(((offset + i) * 0x9E3779B97F4A7C15ull) >> 56);
  return s;
}

std::string drain(CBuffer& buffer) {
  std::string out;
  char* in = nullptr;
  for (uint64_t n; buffer.size > 0 && (n = buffer.read_get_available(&in)) > 0;) {
    out.append(in, n);
    buffer.read_notify_read(n);
  }
  return out;
}

std::string segment_bytes(int variant, uint64_t sequence, size_t size) {
  const std::string tag = "v" + std::to_string(variant) + "s" + std::to_string(sequence) + ":";
  std::string out;
  for (uint32_t i = 0; out.size() < size; ++i) out += tag + static_cast<char>('A' + i % 26);
  out.resize(size);
  return out;
}

std::string url_encode(const std::string& text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += {'%', hex[c >> 4], hex[c & 15]};
    }
  }
  return out;
}

std::string Presentation::playlist_path(int v) const {
  return "/" + name + "/v" + std::to_string(v) + ".m3u8";
}

std::string Presentation::segment_path(int v, uint64_t seq) const {
  return "/" + name + "/v" + std::to_string(v) + "/" + std::to_string(seq) + ".ts";
}

std::string Presentation::media_playlist(const ScriptedOrigin& origin, int v, uint64_t first,
                                         int n) const {
  std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:" + std::to_string(target_duration) +
                     "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(first) + "\n";
  if (!key.empty())
    text += "#EXT-X-KEY:METHOD=AES-128,URI=\"" + url(origin, "/" + name + "/key") + "\"\n";
  for (int i = 0; i < n; ++i) {
    text += "#EXTINF:" + std::to_string(target_duration) + ".0,\n" +
            url(origin, segment_path(v, first + static_cast<uint64_t>(i)), true) + "\n";
  }
  return endlist ? text + "#EXT-X-ENDLIST\n" : text;
}

std::string Presentation::url(const ScriptedOrigin& origin, const std::string& path,
                              bool segment) const {
  const std::string& host = segment ? segment_host : playlist_host;
  return host.empty() ? origin.url(path) : "http://" + host + path;
}

void Presentation::install(ScriptedOrigin& origin) const {
  std::string master = "#EXTM3U\n";
  for (size_t v = 0; v < bandwidths.size(); ++v) {
    const int vi = static_cast<int>(v);
    master += "#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=" + std::to_string(bandwidths[v]) +
              ",RESOLUTION=640x360\n" + url(origin, playlist_path(vi)) + "\n";
    for (int i = 0; i < count; ++i) {
      const uint64_t seq = first_sequence + static_cast<uint64_t>(i);
      origin.set(segment_path(vi, seq),
                 {.body = segment_bytes(vi, seq, segment_size), .encrypt_key = key});
    }
    origin.set(playlist_path(vi), Reply::ok(media_playlist(origin, vi, first_sequence, count)));
  }
  if (!key.empty()) origin.set("/" + name + "/key", Reply::ok(key));
  origin.set(master_path(), Reply::ok(master));
}

StreamResult fetch_stream(int port, const std::string& master_url,
                          std::chrono::milliseconds timeout, const std::string& extra_query) {
  const int fd = connect_loopback(port);
  const std::string req =
      "GET /stream?url=" + url_encode(master_url) + extra_query + " HTTP/1.1\r\n\r\n";
  [[maybe_unused]] const ssize_t w = ::write(fd, req.data(), req.size());
  std::string raw;
  StreamResult result;
  result.closed = read_until_close(fd, &raw, timeout);
  ::close(fd);
  const size_t end = raw.find("\r\n\r\n");
  if (end != std::string::npos) result.body = raw.substr(end + 4);
  return result;
}

Segments delivered_segments(const std::vector<std::string>& lines, const std::string& prefix) {
  Segments out;
  for (const std::string& line : lines) {
    const size_t at = line.find(" from " + prefix);
    if (line.rfind("got chunk (seq ", 0) != 0 || at == std::string::npos) continue;
    out.emplace_back(std::stoi(line.substr(at + 6 + prefix.size())), std::stoull(line.substr(15)));
  }
  return out;
}

Segments delivered_segments(const ScriptedOrigin& origin, const Presentation& p) {
  return delivered_segments(LogCapture::instance().lines(LogStream::out),
                            p.url(origin, "/" + p.name + "/v", true));
}

std::string bytes_of(const Presentation& p, const Segments& segments) {
  std::string out;
  for (const auto& [v, seq] : segments) out += segment_bytes(v, seq, p.segment_size);
  return out;
}

}  // namespace skerir::test
