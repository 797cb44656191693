// Line-level helpers shared by the master and media playlist parsers.
#pragma once

#include <cstdlib>
#include <istream>
#include <string>
#include <string_view>

#include "util/log.h"
#include "util/strings.h"

namespace skerir::playlist_text {

inline constexpr std::string_view kM3uHeader = "#EXTM3U";
inline constexpr const char* kNotM3u = "This is not m3u playlist!";

// Reads the first line of `in` and checks that, trimmed, it is the playlist header. Logs
// "This is not m3u playlist!" on standard error when it is not.
inline bool read_header(std::istream& in) {
  std::string line;
  std::getline(in, line);
  if (trim(line) == kM3uHeader) return true;
  log_err(kNotM3u);
  return false;
}

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
