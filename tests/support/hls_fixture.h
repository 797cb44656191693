// Presentations for the scripted origin and a client for "/stream", shared by the engine and
// stream-endpoint tests, the fault-and-load tests and the benchmarks.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "support/scripted_origin.h"

namespace skerir::test {

// Deterministic segment bytes: every (variant, sequence) pair gives a different body.
std::string segment_bytes(int variant, uint64_t sequence, size_t size);

// Percent-encodes everything but unreserved characters, for the "url" query parameter.
std::string url_encode(const std::string& text);

struct SegmentPlan {
  uint64_t sequence;
  std::string path;      // on the origin
  std::string key_path;  // empty: clear; otherwise the key's path on the origin
};

struct MediaPlaylistPlan {
  uint64_t media_sequence = 1;
  int target_duration = 2;
  bool endlist = true;
  std::vector<SegmentPlan> segments;
};

// The playlist text, with absolute URLs on `origin`.
std::string media_playlist(const ScriptedOrigin& origin, const MediaPlaylistPlan& plan);

// A master playlist listing (bandwidth, media playlist path) pairs in order.
std::string master_playlist(const ScriptedOrigin& origin,
                            const std::vector<std::pair<uint64_t, std::string>>& variants);

// A VOD presentation on the origin: variant v (0-based) has its media playlist at
// "/<name>/v<v>.m3u8" and segments "/<name>/v<v>/<seq>.ts" for sequences first..first+count-1,
// each `segment_size` bytes of segment_bytes(v, seq); the master is "/<name>/master.m3u8".
struct Presentation {
  std::string name;
  std::vector<uint64_t> bandwidths;
  uint64_t first_sequence = 1;
  int count = 5;
  size_t segment_size = 100 * 1024;
  int target_duration = 2;
  bool endlist = true;

  std::string master_path() const { return "/" + name + "/master.m3u8"; }
  std::string playlist_path(int v) const;
  std::string segment_path(int v, uint64_t seq) const;
  // Installs the master, the media playlists and the segments.
  void install(ScriptedOrigin& origin) const;
  // Which (variant, sequence) a segment path names; false for other paths.
  bool parse_segment_path(const std::string& path, int* v, uint64_t* seq) const;
};

// What the engine reported delivering from `presentation` on `origin`, read from its
// "got chunk (seq N) from URL with size ..." log lines in order: the (variant, sequence) pairs
// and the bytes those segments hold.
struct Delivery {
  std::vector<std::pair<int, uint64_t>> segments;
  std::string bytes;
};
Delivery delivered_segments(const ScriptedOrigin& origin, const Presentation& presentation);

// The outcome of one "/stream" request.
struct StreamResult {
  std::string head;  // the reply header block
  std::string body;
  bool closed = false;  // the server closed the connection before the deadline
};

// Requests "/stream?url=<master_url>[&startFrom=N]" and reads until the server closes.
StreamResult fetch_stream(int port, const std::string& master_url,
                          std::chrono::milliseconds timeout, const std::string& extra_query = "");

// Splits a raw reply into its header block and body.
StreamResult split_reply(const std::string& raw, bool closed);

}  // namespace skerir::test
