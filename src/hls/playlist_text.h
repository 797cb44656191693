// Line-level helpers shared by the master and media playlist parsers.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

namespace skerir::playlist_text {

inline constexpr std::string_view kM3uHeader = "#EXTM3U";
inline constexpr const char* kNotM3u = "This is not m3u playlist!";

// Whether the raw (untrimmed) line begins with `tag`.
inline bool starts_with(const std::string& line, std::string_view tag) {
  return std::string_view(line).substr(0, tag.size()) == tag;
}

// atol of the text from `pos` on: leading white space and sign, then digits; 0 when there are
// none. Out-of-range values saturate (strtol) instead of being undefined.
inline long number_at(const std::string& line, size_t pos) {
  return pos < line.size() ? std::strtol(line.c_str() + pos, nullptr, 10) : 0;
}

}  // namespace skerir::playlist_text
