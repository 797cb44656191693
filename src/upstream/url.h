// Pure URL helpers of the upstream client: resolving a reference against the URL it came from
// (RFC 3986, section 5.2), and the byte checks that keep a URL or a header line from carrying a
// second request or header. Stateless; any thread may call them.
#pragma once

#include <string>
#include <string_view>

namespace skerir {

// The target URI of `reference` (absolute, or relative such as "../a.ts", "/b", "//h/c", "?q")
// resolved against the absolute URL `base`, dot segments removed, as RFC 3986 section 5.2
// (strict: a reference with a scheme is taken as it stands) defines it. Never fails: any text
// is a reference, so bad input gives a URL that fails when it is fetched.
// Example: resolve_url("http://a/b/c/d;p?q", "../g") == "http://a/b/g".
std::string resolve_url(std::string_view base, std::string_view reference);

// Whether `reference` starts with a scheme and its colon, as "http:" or "g:" do (a letter, then
// letters, digits, "+", "-" or "."): "~x:1/a" and "/a:b" do not.
bool names_scheme(std::string_view reference);

// Why `url` must not be requested: it holds a control character (below 0x20, or 0x7F) or a
// space, either of which could end the request line early and smuggle text into the request.
// Empty when the URL is safe to put on a request line.
std::string unsafe_url_reason(std::string_view url);

// Why the header line "name: value" must not be sent: a name that is empty or holds anything
// but token characters, or a value with a control character other than a tab. Empty when safe.
std::string unsafe_header_reason(std::string_view name, std::string_view value);

}  // namespace skerir
