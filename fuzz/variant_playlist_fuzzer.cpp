// The media playlist parser: a text that is not a playlist yields nothing, and every segment
// URL is a trimmed line that is not a tag, or that line resolved against the playlist's URL.
#include <string>

#include "fuzz_check.h"
#include "hls/variant_playlist.h"
#include "util/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  skerir::VariantPlaylist playlist("http://o/v.m3u8");
  const bool ok = playlist.parse_playlist(&text);
  FUZZ_CHECK(ok || playlist.chunks.empty());
  for (; !playlist.chunks.empty(); playlist.chunks.pop()) {
    const std::string& url = playlist.chunks.front().url;
    FUZZ_CHECK(url.empty() || (!skerir::isspace(url.front()) && !skerir::isspace(url.back())));
    // As written when it names a scheme, else resolved against the playlist's own URL.
    FUZZ_CHECK(text.find(url) != std::string::npos || url.starts_with("http:"));
  }
  return 0;
}
