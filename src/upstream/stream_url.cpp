#include "upstream/stream_url.h"

#include <strings.h>

#include <cstdlib>

#include "util/log.h"
#include "util/strings.h"

namespace skerir {
namespace {

// Percent escapes only: a "+" stays a "+", as header values such as user agents need it.
std::string percent_decode(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() &&
        std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool has_control(const std::string& text) {
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7F) return true;
  }
  return false;
}

}  // namespace

StreamUrl split_stream_url(const std::string& value) {
  StreamUrl out;
  const size_t bar = value.find('|');
  out.url = value.substr(0, bar);
  if (bar == std::string::npos) return out;
  for (const std::string& item : split(value.substr(bar + 1), '&')) {
    if (item.empty()) continue;
    const size_t eq = item.find('=');
    const std::string name = item.substr(0, eq);
    const std::string decoded = eq == std::string::npos ? "" : percent_decode(item.substr(eq + 1));
    if (name.empty() || name.find_first_of(" \t:()<>@,;\\\"/[]?={}") != std::string::npos ||
        has_control(name) || has_control(decoded)) {
      out.error = "unusable request header in the stream URL: " + name;
      return out;
    }
    bool reserved = false;
    for (const char* own : {"Host", "Connection", "Range"})
      reserved |= !strcasecmp(own, name.c_str());
    if (reserved) {
      log_out("ignoring the ", name, " header of the stream URL: skerir sets it itself");
    } else {
      out.headers.emplace_back(name, decoded);
    }
  }
  return out;
}

}  // namespace skerir
