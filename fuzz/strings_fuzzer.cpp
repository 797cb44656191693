// Fuzzes the string helpers every parser builds on: split, url_decode and the trims.
// Input: the first byte is the split delimiter, the rest the text.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "util/strings.h"

namespace {

using skerir::isspace;

void check_split(const std::string& text, char delim) {
  const std::vector<std::string> pieces = skerir::split(text, delim);
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    FUZZ_CHECK(pieces[i].find(delim) == std::string::npos);
    if (i > 0) joined += delim;
    joined += pieces[i];
  }
  // The pieces rejoin to the text, less the one trailing delimiter that adds no empty piece.
  if (!text.empty() && text.back() == delim) {
    FUZZ_CHECK(joined + delim == text);
  } else {
    FUZZ_CHECK(joined == text);
  }
  FUZZ_CHECK(text.empty() == pieces.empty());

  // The appending form adds the same pieces after what is there.
  std::vector<std::string> out{"kept"};
  skerir::split(text, delim, out);
  FUZZ_CHECK(out.size() == pieces.size() + 1 && out[0] == "kept");
  FUZZ_CHECK(std::equal(pieces.begin(), pieces.end(), out.begin() + 1));
}

void check_url_decode(const std::string& text) {
  std::string decoded = text;
  skerir::url_decode(&decoded);
  // Walk the text as the decoder must: an escape takes three positions (fewer at the end) and
  // yields one byte; "+" yields a blank; anything else itself.
  size_t i = 0;
  size_t o = 0;
  while (i < text.size()) {
    FUZZ_CHECK(o < decoded.size());
    if (text[i] == '%') {
      if (i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
          std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
        const int expected = std::stoi(text.substr(i + 1, 2), nullptr, 16);
        FUZZ_CHECK(static_cast<unsigned char>(decoded[o]) == expected);
      }
      i += 3;
    } else {
      FUZZ_CHECK(decoded[o] == (text[i] == '+' ? ' ' : text[i]));
      ++i;
    }
    ++o;
  }
  FUZZ_CHECK(o == decoded.size());
}

void check_trims(const std::string& text) {
  std::string l = text;
  std::string r = text;
  std::string both = text;
  skerir::ltrim(l);
  skerir::rtrim(r);
  skerir::trim(both);
  FUZZ_CHECK(l.empty() || !isspace(l.front()));
  FUZZ_CHECK(r.empty() || !isspace(r.back()));
  FUZZ_CHECK(both.empty() || (!isspace(both.front()) && !isspace(both.back())));
  // Only white space is removed, and only at the ends.
  FUZZ_CHECK(text.size() >= l.size() && text.compare(text.size() - l.size(), l.size(), l) == 0);
  FUZZ_CHECK(text.compare(0, r.size(), r) == 0);
  for (size_t k = r.size(); k < text.size(); ++k) FUZZ_CHECK(isspace(text[k]));
  for (size_t k = 0; k < text.size() - l.size(); ++k) FUZZ_CHECK(isspace(text[k]));
  std::string again = both;
  FUZZ_CHECK(skerir::trim(again) == both);
  FUZZ_CHECK(both.size() <= l.size() && both.size() <= r.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char delim = static_cast<char>(data[0]);
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  check_split(text, delim);
  check_url_decode(text);
  check_trims(text);
  return 0;
}
