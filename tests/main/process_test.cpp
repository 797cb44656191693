// The real binary on its fixed port.
#include "support/process.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;

TEST(Process, StartsAsItsOneArgumentSays) {
  ChildProcess none(test::skerir_binary(), {});
  EXPECT_EQ(none.wait_exit(30s), 2);
  EXPECT_EQ(none.err(), "Specify maximal buffer size\n");

  ChildProcess p(test::skerir_binary(), {"abc"});
  ASSERT_TRUE(test::wait_listening(7744)) << p.err();
  EXPECT_NE(test::roundtrip(7744, "GET /stats.json HTTP/1.1\r\n\r\n")
                .find("\r\n\r\n{\"last_chunk_speed\": 0,"),
            std::string::npos);

  ChildProcess second(test::skerir_binary(), {"1000"});  // 7744 is taken by the first
  EXPECT_EQ(second.wait_exit(30s), 0);
  EXPECT_EQ(second.err(), "Couldn't bind listening socket.\n");
}

}  // namespace
}  // namespace skerir
