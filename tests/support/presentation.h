// HLS presentations served by a scripted origin, and a client for "/stream" that checks what
// arrives against what the engine reported delivering.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "support/scripted_origin.h"

namespace skerir {
class CBuffer;
}

namespace skerir::test {

// Bytes that differ at every position from `offset` on: a byte lost, repeated or moved shows.
std::string pattern(uint64_t offset, size_t n);
// What the buffer holds, taken through its zero-copy reader up to the first block it skips.
std::string drain(CBuffer& buffer);
// Deterministic segment bytes: every (variant, sequence) pair gives different bytes.
std::string segment_bytes(int variant, uint64_t sequence, size_t size);
// Percent-encodes all but unreserved characters, for the "url" query parameter.
std::string url_encode(const std::string& text);

// Variant v has its media playlist at /<name>/v<v>.m3u8 with absolute segment URLs
// /<name>/v<v>/<seq>.ts; the master is /<name>/master.m3u8. With a key, every segment is
// served AES-128 encrypted and the playlist names /<name>/key.
struct Presentation {
  std::string name;
  std::vector<uint64_t> bandwidths = {500000};
  uint64_t first_sequence = 1;
  int count = 5;
  size_t segment_size = 100 * 1024;
  int target_duration = 2;
  bool endlist = true;
  std::string key;
  // When set, playlists and keys are named on this host and segments on `segment_host`
  // ("~" and "@" for the cache maps) instead of on the origin.
  std::string playlist_host, segment_host;

  std::string master_path() const { return "/" + name + "/master.m3u8"; }
  std::string playlist_path(int v) const;
  std::string segment_path(int v, uint64_t seq) const;
  // The media playlist of variant v listing sequences [first, first + n).
  std::string media_playlist(const ScriptedOrigin& origin, int v, uint64_t first, int n) const;
  // Sets every reply of the presentation on `origin`.
  void install(ScriptedOrigin& origin) const;
  std::string url(const ScriptedOrigin& origin, const std::string& path,
                  bool segment = false) const;
};

struct StreamResult {
  std::string body;
  bool closed = false;  // the server closed the connection before the deadline
};

// GET /stream?url=<encoded master_url><extra_query> on the server at `port`; reads until close.
StreamResult fetch_stream(int port, const std::string& master_url,
                          std::chrono::milliseconds timeout, const std::string& extra_query = "");

// The (variant, sequence) of each segment whose URL starts with `prefix` + "<variant>/" that the
// engine logged as fetched ("got chunk (seq N) from <url> with size ..."), in log order, and
// the bytes those segments hold. The first form reads the lines logged in this process.
using Segments = std::vector<std::pair<int, uint64_t>>;
Segments delivered_segments(const std::vector<std::string>& lines, const std::string& prefix);
Segments delivered_segments(const ScriptedOrigin& origin, const Presentation& p);
std::string bytes_of(const Presentation& p, const Segments& segments);

}  // namespace skerir::test
