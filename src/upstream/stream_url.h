// A stream's playlist URL as players and IPTV channel lists write it: the URL, optionally
// followed by "|Name=Value&Name=Value", request headers (a User-Agent, a Referer) that the
// stream sends with every upstream request. Pure; any thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace skerir {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct StreamUrl {
  std::string url;     // everything before the first "|"
  HeaderList headers;  // values percent-decoded, in order
  std::string error;   // why the suffix cannot be used; empty when it can
};

// Splits `value` at its first "|". Names that would change how skerir talks to the origin
// (Host, Connection, Range) are dropped with one line each on standard output; a name that is
// not a token, or a name or value holding a control character, makes `error` say so.
StreamUrl split_stream_url(const std::string& value);

}  // namespace skerir
