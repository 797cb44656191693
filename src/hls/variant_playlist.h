// The media playlist of the variant a stream plays: its URL, target duration and the queue of
// its segments in playlist order.
//
// parse_playlist rebuilds the queue from scratch on every call, so it is a snapshot of the
// latest text; the fill thread tells new segments from old ones by `sequence`. Owned by its
// MasterPlaylist; used by one thread at a time (the refresh timer while it refreshes, the fill
// thread while it consumes), never concurrently.
#pragma once

#include <cstdint>
#include <deque>
#include <queue>
#include <string>

#include "upstream/stream_url.h"

namespace skerir {

// One media segment, copied by value into and out of the queue.
struct Chunk {
  uint64_t sequence = 0;
  std::string url;       // the URI line, trimmed
  bool is_last = false;  // last segment of a playlist that carries the end-list tag
  std::string key_url;   // AES-128 key in force for this segment; empty when clear
  std::string iv;        // the key tag's IV, 16 bytes; empty for the all-zero IV
  uint64_t range_offset = 0, range_length = 0;  // a byte range of the resource; 0: all of it
  std::string unplayable;  // why this segment cannot be sent to a client; empty when it can
};

class VariantPlaylist {
 public:
  explicit VariantPlaylist(std::string url);

  // Replaces `chunks` with the segments of the media playlist in `*text`. Returns false (with
  // "This is not m3u playlist!" on standard error and an empty queue) when the trimmed first
  // line is not "#EXTM3U"; true otherwise. Numbers read as atol reads them (leading digits, 0
  // when none). `target_duration` keeps its value when the text does not set it.
  bool parse_playlist(std::string* text);

  // Fetches the playlist from `url` and parses it. True only when the fetch succeeded and the
  // rebuilt queue holds at least one chunk. Refresh-timer thread.
  bool refresh();

  std::string url;
  std::string base_url;  // where `url` led after redirects; relative URIs resolve against it
  HeaderList headers;    // sent with every fetch of the playlist
  uint32_t target_duration = 1;  // seconds
  bool fresh = false;  // parsed from text fetched just now: the next pass needs no refetch
  std::queue<Chunk, std::deque<Chunk>> chunks;

 private:
  const std::string& base() const { return base_url.empty() ? url : base_url; }
};

}  // namespace skerir
