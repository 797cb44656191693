// The command line: the buffer size first as it always was, then the options.
#include "main/options.h"

#include <gtest/gtest.h>

namespace skerir {
namespace {

using Action = Options::Action;

TEST(CommandLine, SizeFirstThenOptionsAndOneLineForEachMistake) {
  const struct {
    std::vector<std::string> args;
    Action action;
    std::string message;  // kFail: exact; kHelp, kVersion: a fragment
    unsigned long size = 0;
    size_t listeners = 0;
  } cases[] = {
      {{}, Action::kFail, "Specify maximal buffer size"},
      {{"16777216"}, Action::kServe, "", 16777216},
      {{"abc"}, Action::kServe, "", 0},
      {{"12kb"}, Action::kServe, "", 12},
      {{"-h"}, Action::kHelp, "--upstream-allow LIST"},
      {{"100", "--listen", "[::]:1", "--help"}, Action::kHelp, "/streams.json"},
      {{"--version"}, Action::kVersion, "skerir "},
      {{"1", "--listen", "127.0.0.1:0", "--listen=[::1]:65535"}, Action::kServe, "", 1, 2},
      {{"1", "--map-token", "--help"}, Action::kServe, "", 1},  // a value, not an option
      {{"1", "--upstream-allow", "a", "--upstream-allow=b:1,10.0.0.0/8"}, Action::kServe, "", 1},
      {{"1", "--lisen", "x"}, Action::kFail, "unknown option '--lisen' (see skerir --help)"},
      {{"--listen", "0.0.0.0:1"},
       Action::kFail,
       "unexpected argument '0.0.0.0:1': options come after the buffer size (see skerir --help)"},
      {{"1", "--listen"}, Action::kFail, "--listen needs a value"},
      {{"1", "--map-token="}, Action::kFail, "--map-token needs a non-empty value"},
      {{"1", "--upstream-allow", "a,,b"}, Action::kFail, "--upstream-allow: empty entry in 'a,,b'"},
  };
  for (const auto& c : cases) {
    const Options o = Options::parse(c.args);
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args.back());
    ASSERT_EQ(o.action, c.action) << o.message;
    if (c.action == Action::kFail) {
      EXPECT_EQ(o.message, (c.args.empty() ? "" : "skerir: ") + c.message);
    } else if (c.action != Action::kServe) {
      EXPECT_NE(o.message.find(c.message), std::string::npos) << o.message;
    } else {
      EXPECT_EQ(o.max_buffer_size, c.size);
      EXPECT_EQ(o.listen.size(), c.listeners);
    }
  }
  for (const char* bad : {"7744", "localhost:80", "::1:7744", "[::1]", "[::1]:", "1.2.3.4:65536",
                          "1.2.3.4:-1", "1.2.3.4:80x", "1.2.3:80", "[1.2.3.4]:80", "[::1:80"}) {
    EXPECT_EQ(Options::parse({"1", "--listen", bad}).message,
              "skerir: --listen '" + std::string(bad) +
                  "': expected an IPv4 address or a bracketed IPv6 address, a colon and a port");
  }
}

}  // namespace
}  // namespace skerir
