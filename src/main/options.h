// The command line. The first argument is the maximal stream-buffer size, read as it always
// has been (atol: "abc" is 0); everything new is an option after it, so a process started
// with the size alone behaves as it always did. "-h", "--help" and "--version" are understood
// first or after the size.
#pragma once

#include <string>
#include <vector>

#include "main/listen_address.h"
#include "upstream/upstream_policy.h"

namespace skerir {

struct Options {
  enum class Action { kServe, kHelp, kVersion, kFail };

  // `args` are the arguments after the program name. Never throws.
  static Options parse(const std::vector<std::string>& args);

  Action action = Action::kServe;
  // kHelp, kVersion: the text for standard output; kFail: the one line for standard error.
  std::string message;

  unsigned long max_buffer_size = 0;
  std::vector<ListenAddress> listen;  // empty: the default address
  std::string map_token;              // empty: "/update-cache-map" is open
  UpstreamPolicy upstream;            // allows everything without "--upstream-allow"
};

// The usage text "--help" prints, without a final newline.
std::string usage_text();

}  // namespace skerir
