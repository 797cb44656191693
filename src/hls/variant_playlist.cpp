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
constexpr std::string_view kByteRange = "#EXT-X-BYTERANGE:";
constexpr std::string_view kMap = "#EXT-X-MAP";
constexpr std::string_view kEndList = "#EXT-X-ENDLIST";
constexpr size_t kIvBytes = 16;

// What a key tag says about the segments after it. Without a METHOD the key is AES-128, and
// without an IV the IV stays all zeros, whatever the sequence number.
Chunk key_of(const std::string& attributes) {
  using playlist_text::attribute;
  Chunk key;
  const std::string method = attribute(attributes, "METHOD").value_or("AES-128");
  const auto uri = attribute(attributes, "URI");
  const std::string iv = attribute(attributes, "IV").value_or("");
  if (method == "NONE") return key;
  if (method != "AES-128") {
    key.unplayable = method + " encryption, which skerir cannot decrypt";
  } else if (!uri || uri->empty()) {
    key.unplayable = "an AES-128 key tag without a URI";
  } else if (!iv.empty() && (iv.size() != 2 + 2 * kIvBytes || (iv[1] != 'x' && iv[1] != 'X') ||
                             iv.find_first_not_of("0123456789abcdefABCDEF", 2) != iv.npos)) {
    key.unplayable = "a key tag with a malformed IV: " + iv;
  } else {
    key.key_url = *uri;
    for (size_t i = 2; i < iv.size(); i += 2) {
      key.iv.push_back(static_cast<char>(std::stoi(iv.substr(i, 2), nullptr, 16)));
    }
  }
  return key;
}

}  // namespace

VariantPlaylist::VariantPlaylist(std::string playlist_url) : url(std::move(playlist_url)) {}

bool VariantPlaylist::parse_playlist(std::string* text) {
  using playlist_text::starts_with;
  chunks = {};
  uint64_t sequence = 0;
  Chunk next;  // what the tags seen so far say about the next segment
  std::string map;
  uint64_t range_end = 0;

  std::istringstream in(*text);
  if (!playlist_text::read_header(in)) return false;
  for (std::string line; std::getline(in, line);) {
    if (starts_with(line, kMediaSequence)) {
      sequence = static_cast<uint64_t>(playlist_text::number_at(line, kMediaSequence.size()));
    } else if (starts_with(line, kTargetDuration)) {
      target_duration =
          static_cast<uint32_t>(playlist_text::number_at(line, kTargetDuration.size()));
    } else if (starts_with(line, kKey)) {
      const Chunk key = key_of(trim(line).substr(kKey.size()));
      next.key_url = key.key_url.empty() ? "" : playlist_text::resolve(base(), key.key_url);
      next.iv = key.iv;
      next.unplayable = key.unplayable;
      log_out("key url: ", next.key_url);
    } else if (starts_with(line, kByteRange)) {
      // <length>[@<offset>]; without an offset the range follows the previous segment's.
      next.range_length = static_cast<uint64_t>(playlist_text::number_at(line, kByteRange.size()));
      const size_t at = line.find('@');
      next.range_offset = at == std::string::npos
                              ? range_end
                              : static_cast<uint64_t>(playlist_text::number_at(line, at + 1));
    } else if (starts_with(line, kMap)) {
      map = "fMP4 segments (" + trim(line) + "), which a transport-stream client cannot play";
    } else if (starts_with(line, kEndList)) {
      if (!chunks.empty()) chunks.back().is_last = true;
    } else if (!trim(line).empty() && line[0] != '#') {
      // A URI line: one segment. Durations, other tags, comments and blank lines carry nothing
      // this proxy uses.
      Chunk chunk = next;
      chunk.sequence = sequence++;
      chunk.url = playlist_text::resolve(base(), line);
      if (!map.empty()) chunk.unplayable = map;
      range_end = chunk.range_offset + chunk.range_length;
      chunks.push(std::move(chunk));
      next.range_length = 0;
      next.range_offset = 0;
    }
  }
  return true;
}

}  // namespace skerir
