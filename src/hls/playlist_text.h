// Line-level helpers shared by the master and media playlist parsers.
#pragma once

#include <cstdlib>
#include <istream>
#include <optional>
#include <string>
#include <string_view>

#include "upstream/url.h"
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

// `uri` as written when it names a scheme (the absolute URLs most playlists carry), else
// resolved against `base`, the URL the playlist was fetched from after its redirects.
inline std::string resolve(const std::string& base, const std::string& uri) {
  return names_scheme(uri) || base.empty() ? uri : resolve_url(base, uri);
}

// The value of attribute `name` in an attribute list such as `BANDWIDTH=800000,CODECS="a,b"`:
// NAME=VALUE pairs separated by commas, where a quoted string may hold commas. Quotes are
// removed; nullopt when the list has no such attribute ("AVERAGE-BANDWIDTH" is not
// "BANDWIDTH").
inline std::optional<std::string> attribute(std::string_view list, std::string_view name) {
  for (size_t at = 0; at < list.size();) {
    const size_t eq = list.find('=', at);
    if (eq == std::string_view::npos) break;
    std::string key(list.substr(at, eq - at));
    size_t end = eq + 1;
    std::string_view value;
    if (end < list.size() && list[end] == '"') {
      const size_t quote = std::min(list.find('"', end + 1), list.size());
      value = list.substr(end + 1, quote - end - 1);
      end = list.find(',', quote);
    } else {
      end = list.find(',', end);
      value = list.substr(eq + 1, end == std::string_view::npos ? end : end - eq - 1);
    }
    if (trim(key) == name) return std::string(value);
    at = end == std::string_view::npos ? list.size() : end + 1;
  }
  return std::nullopt;
}

}  // namespace skerir::playlist_text
