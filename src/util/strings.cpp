#include "util/strings.h"

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

}  // namespace skerir
