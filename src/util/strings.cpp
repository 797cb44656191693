#include "util/strings.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace skerir {

std::vector<std::string>& split(const std::string& s, char delim, std::vector<std::string>& out) {
  std::istringstream in(s);
  std::string piece;
  while (std::getline(in, piece, delim)) out.push_back(piece);
  return out;
}

std::vector<std::string> split(const std::string& s, char delim) {
  std::vector<std::string> out;
  split(s, delim, out);
  return out;
}

void url_decode(std::string* s) {
  const std::string in = *s;
  s->clear();
  s->reserve(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    const char c = in[i];
    if (c == '+') {
      s->push_back(' ');
    } else if (c == '%') {
      // strtol takes what it can of the (at most) two characters; "%zz" gives 0, "%-1" -1.
      const std::string hex = in.substr(i + 1, 2);
      s->push_back(static_cast<char>(std::strtol(hex.c_str(), nullptr, 16) & 0xFF));
      i += 2;
    } else {
      s->push_back(c);
    }
  }
}

int isspace(int c) {
  return (c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r') ? 1 : 0;
}

std::string& ltrim(std::string& s) {
  size_t i = 0;
  while (i < s.size() && isspace(s[i])) ++i;
  s.erase(0, i);
  return s;
}

std::string& rtrim(std::string& s) {
  size_t n = s.size();
  while (n > 0 && isspace(s[n - 1])) --n;
  s.erase(n);
  return s;
}

std::string& trim(std::string& s) { return ltrim(rtrim(s)); }

namespace {

// Length of the well-formed UTF-8 sequence at the start of `s` (RFC 3629: no overlong forms,
// no surrogates, nothing above U+10FFFF), or 0 when it is not one.
size_t utf8_sequence_length(std::string_view s) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(s[i]); };
  const uint8_t b0 = byte(0);
  size_t len = 0;
  uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the second byte
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    len = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    len = 3;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    len = 4;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (s.size() < len || byte(1) < lo || byte(1) > hi) return 0;
  for (size_t i = 2; i < len; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return len;
}

}  // namespace

std::string json_escape(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  while (!s.empty()) {
    const auto c = static_cast<uint8_t>(s.front());
    size_t take = 1;
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char hex[8];
      std::snprintf(hex, sizeof(hex), "\\u%04x", c);
      out += hex;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else if ((take = utf8_sequence_length(s)) != 0) {
      out.append(s.substr(0, take));
    } else {
      take = 1;
      out += "\\ufffd";
    }
    s.remove_prefix(take);
  }
  return out;
}

}  // namespace skerir
