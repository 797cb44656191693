// String helpers shared by the request parser, the upstream client, the playlist parsers
// and the cache map. Stateless; any thread may call them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace skerir {

// Appends to `out` the pieces of `s` between `delim`s, as successive getline calls yield
// them: inner and leading empty pieces are kept, a single trailing delimiter adds nothing,
// an empty `s` adds nothing. `out` is not cleared. Returns `out`.
std::vector<std::string>& split(const std::string& s, char delim, std::vector<std::string>& out);
std::vector<std::string> split(const std::string& s, char delim);

// Decodes `*s` in place: "+" becomes a blank, "%" and the (at most) two characters after it
// become the byte strtol gives them in base 16. Never fails: malformed escapes decode to
// whatever strtol makes of them ("%zz" is a NUL byte).
void url_decode(std::string* s);

// White space as the "C" locale classifies it: blank, \t, \n, \v, \f, \r. Returns 1 or 0.
int isspace(int c);

std::string& ltrim(std::string& s);
std::string& rtrim(std::string& s);
std::string& trim(std::string& s);

// `s` as the inside of a JSON string: quote, backslash and control characters escaped, valid
// UTF-8 kept as it is, and every byte that is not part of valid UTF-8 replaced by U+FFFD, so
// any bytes a client sent make valid JSON.
std::string json_escape(std::string_view s);

}  // namespace skerir
