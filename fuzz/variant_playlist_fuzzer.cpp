// Fuzzes the media playlist parser on arbitrary playlist text, checking every segment against
// the lines it came from.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "hls/variant_playlist.h"
#include "util/strings.h"

namespace {

using skerir::Chunk;
using skerir::VariantPlaylist;

// A target duration no text sets by accident, to see whether the text set one.
constexpr uint32_t kUnset = 0xFEEDu;

bool starts_with(const std::string& line, const char* tag) { return line.rfind(tag, 0) == 0; }

std::vector<Chunk> drain(VariantPlaylist& playlist) {
  std::vector<Chunk> out;
  while (!playlist.chunks.empty()) {
    out.push_back(playlist.chunks.front());
    playlist.chunks.pop();
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  VariantPlaylist playlist("http://127.0.0.1/v.m3u8");
  playlist.target_duration = kUnset;
  // Segments of an earlier parse never survive the next one.
  playlist.chunks.push(Chunk{1, "stale", false, ""});
  const bool ok = playlist.parse_playlist(&text);
  const std::vector<Chunk> chunks = drain(playlist);

  const std::vector<std::string> lines = skerir::split(text, '\n');
  std::string first = lines.empty() ? "" : lines[0];
  FUZZ_CHECK(ok == (skerir::trim(first) == "#EXTM3U"));
  if (!ok) {
    FUZZ_CHECK(chunks.empty() && playlist.target_duration == kUnset);
    return 0;
  }

  // Walk the lines as the parser must and hold each segment to the line that made it.
  size_t next = 0;
  bool sequence_set = false;  // a media-sequence tag since the previous segment
  bool key_set = false;       // a key tag since the previous segment
  bool duration_set = false;
  bool end_list = false;  // an end-list tag since the previous segment
  std::string key_line;   // the last key tag
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    if (starts_with(line, "#EXT-X-MEDIA-SEQUENCE:")) {
      sequence_set = true;
    } else if (starts_with(line, "#EXT-X-TARGETDURATION:")) {
      duration_set = true;
    } else if (starts_with(line, "#EXT-X-KEY:")) {
      key_set = true;
      key_line = line;
    } else if (starts_with(line, "#EXT-X-ENDLIST")) {
      end_list = true;
    } else if (!starts_with(line, "#")) {
      FUZZ_CHECK(next < chunks.size());
      const Chunk& c = chunks[next];
      std::string trimmed = line;
      FUZZ_CHECK(c.url == skerir::trim(trimmed));
      if (next == 0) {
        FUZZ_CHECK(sequence_set || c.sequence == 0);
        FUZZ_CHECK(key_set || c.key_url.empty());
      } else {
        const Chunk& prev = chunks[next - 1];
        FUZZ_CHECK(sequence_set || c.sequence == prev.sequence + 1);
        FUZZ_CHECK(key_set || c.key_url == prev.key_url);
        // Only an end-list tag between them marks the earlier one last.
        FUZZ_CHECK(prev.is_last == end_list);
      }
      // The key URL is cut out of the key tag.
      if (key_set) FUZZ_CHECK(key_line.find(c.key_url) != std::string::npos);
      ++next;
      sequence_set = key_set = end_list = false;
    }
  }
  FUZZ_CHECK(next == chunks.size());
  if (next > 0) FUZZ_CHECK(chunks[next - 1].is_last == end_list);
  for (size_t k = 0; k < chunks.size(); ++k) {
    FUZZ_CHECK(chunks[k].url.find('\n') == std::string::npos);
    FUZZ_CHECK(chunks[k].key_url.find('\n') == std::string::npos);
  }
  if (!duration_set) FUZZ_CHECK(playlist.target_duration == kUnset);

  // The same text parses to the same queue again.
  VariantPlaylist again("http://127.0.0.1/v.m3u8");
  FUZZ_CHECK(again.parse_playlist(&text));
  const std::vector<Chunk> twice = drain(again);
  FUZZ_CHECK(twice.size() == chunks.size());
  for (size_t k = 0; k < chunks.size(); ++k) {
    FUZZ_CHECK(twice[k].sequence == chunks[k].sequence && twice[k].url == chunks[k].url &&
               twice[k].is_last == chunks[k].is_last && twice[k].key_url == chunks[k].key_url);
  }
  return 0;
}
