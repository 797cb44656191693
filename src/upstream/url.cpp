#include "upstream/url.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace skerir {
namespace {

// The five components of a URI reference, each with whether it is defined: "http://a?" has an
// empty but defined query, which resolution keeps apart from no query at all.
struct UriParts {
  std::string_view scheme, authority, path, query, fragment;
  bool has_scheme = false, has_authority = false, has_query = false, has_fragment = false;
};

// Splits as the regular expression of RFC 3986 appendix B does, except that a prefix which
// is not a valid scheme stays in the path: a playlist line such as "~x:1/a" is a relative path
// to a player, not an unknown scheme.
UriParts split_uri(std::string_view s) {
  UriParts u;
  if (names_scheme(s)) {
    const size_t colon = s.find(':');
    u.scheme = s.substr(0, colon);
    u.has_scheme = true;
    s.remove_prefix(colon + 1);
  }
  if (s.starts_with("//")) {
    const size_t end = std::min(s.find_first_of("/?#", 2), s.size());
    u.authority = s.substr(2, end - 2);
    u.has_authority = true;
    s.remove_prefix(end);
  }
  const size_t path_end = std::min(s.find_first_of("?#"), s.size());
  u.path = s.substr(0, path_end);
  s.remove_prefix(path_end);
  if (s.starts_with('?')) {
    const size_t end = std::min(s.find('#'), s.size());
    u.query = s.substr(1, end - 1);
    u.has_query = true;
    s.remove_prefix(end);
  }
  if (s.starts_with('#')) {
    u.fragment = s.substr(1);
    u.has_fragment = true;
  }
  return u;
}

// RFC 3986 section 5.2.4, one step per loop pass, each consuming input: bounded by its length.
std::string remove_dot_segments(std::string_view in) {
  std::string out;
  auto drop_last_segment = [&out] {
    const size_t slash = out.rfind('/');
    out.erase(slash == std::string::npos ? 0 : slash);
  };
  while (!in.empty()) {
    if (in.starts_with("../")) {
      in.remove_prefix(3);
    } else if (in.starts_with("./") || in.starts_with("/./")) {
      in.remove_prefix(2);
    } else if (in == "/.") {
      in = "/";
    } else if (in.starts_with("/../")) {
      in.remove_prefix(3);
      drop_last_segment();
    } else if (in == "/..") {
      in = "/";
      drop_last_segment();
    } else if (in == "." || in == "..") {
      in = {};
    } else {
      const size_t next = std::min(in.find('/', 1), in.size());
      out.append(in.substr(0, next));
      in.remove_prefix(next);
    }
  }
  return out;
}

}  // namespace

bool names_scheme(std::string_view reference) {
  const size_t colon = reference.find_first_of(":/?#");
  const auto scheme_char = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
  };
  return colon != std::string_view::npos && colon > 0 && reference[colon] == ':' &&
         std::isalpha(static_cast<unsigned char>(reference[0])) &&
         std::all_of(reference.begin(), reference.begin() + colon, scheme_char);
}

std::string resolve_url(std::string_view base_text, std::string_view reference) {
  const UriParts r = split_uri(reference);
  const UriParts base = split_uri(base_text);
  UriParts t;
  std::string path, merged;
  if (r.has_scheme) {
    t = r;
    path = remove_dot_segments(r.path);
  } else {
    if (r.has_authority) {
      t = r;
      path = remove_dot_segments(r.path);
    } else {
      if (r.path.empty()) {
        path = base.path;
        t.query = r.has_query ? r.query : base.query;
        t.has_query = r.has_query || base.has_query;
      } else {
        if (r.path.starts_with('/')) {
          merged = r.path;
        } else if (base.has_authority && base.path.empty()) {
          merged = "/" + std::string(r.path);
        } else {
          const size_t slash = base.path.rfind('/');
          merged =
              std::string(slash == std::string_view::npos ? "" : base.path.substr(0, slash + 1));
          merged += r.path;
        }
        path = remove_dot_segments(merged);
        t.query = r.query;
        t.has_query = r.has_query;
      }
      t.authority = base.authority;
      t.has_authority = base.has_authority;
    }
    t.scheme = base.scheme;
    t.has_scheme = base.has_scheme;
  }
  t.fragment = r.fragment;
  t.has_fragment = r.has_fragment;

  // Recomposition, RFC 3986 section 5.3.
  std::string out;
  if (t.has_scheme) out.append(t.scheme).append(":");
  if (t.has_authority) out.append("//").append(t.authority);
  out += path;
  if (t.has_query) out.append("?").append(t.query);
  if (t.has_fragment) out.append("#").append(t.fragment);
  return out;
}

std::string unsafe_url_reason(std::string_view url) {
  for (size_t i = 0; i < url.size(); ++i) {
    const auto c = static_cast<unsigned char>(url[i]);
    if (c > 0x20 && c != 0x7F) continue;
    char what[64];
    std::snprintf(what, sizeof(what), c == ' ' ? "a space" : "control character 0x%02X", c);
    return "URL refused: " + std::string(what) + " at offset " + std::to_string(i);
  }
  return "";
}

std::string unsafe_header_reason(std::string_view name, std::string_view value) {
  // Token characters of RFC 9110 section 5.6.2.
  static constexpr std::string_view kTokenPunctuation = "!#$%&'*+-.^_`|~";
  bool token = !name.empty();
  for (const char c : name) {
    const bool alnum = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    token = token && (alnum || kTokenPunctuation.find(c) != std::string_view::npos);
  }
  // The name itself is not quoted: it may hold the very bytes that must not reach a log line.
  if (!token) return "header refused: a name that is not a token";
  for (const char c : value) {
    const auto u = static_cast<unsigned char>(c);
    if ((u < 0x20 && u != '\t') || u == 0x7F) {
      return "header refused: control character in the value of " + std::string(name);
    }
  }
  return "";
}

}  // namespace skerir
