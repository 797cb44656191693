// The real binary: its argument, its fixed port and its exit statuses.
#include "support/process.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;

constexpr int kPort = 7744;

TEST(Process, WithoutArgumentExitsWithStatusTwo) {
  ChildProcess p(test::skerir_binary(), {});
  EXPECT_EQ(p.wait_exit(30s), 2);
  EXPECT_EQ(p.err(), "Specify maximal buffer size\n");
  EXPECT_EQ(p.out(), "");
}

TEST(Process, PortTakenEndsWithTheMessageAndStatusZero) {
  const int blocker = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(blocker, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(kPort);
  sa.sin_addr.s_addr = htonl(INADDR_ANY);
  const bool held = ::bind(blocker, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0 &&
                    ::listen(blocker, 1) == 0;
  if (!held && !test::wait_until_listening(kPort, 100ms)) {
    ::close(blocker);
    GTEST_SKIP() << "cannot occupy port 7744";
  }
  ChildProcess p(test::skerir_binary(), {"1000"});
  EXPECT_EQ(p.wait_exit(30s), 0);
  EXPECT_EQ(p.err(), "Couldn't bind listening socket.\n");
  ::close(blocker);
}

TEST(Process, ServesOnItsFixedPortWithAnyArgument) {
  ChildProcess p(test::skerir_binary(), {"abc"});
  ASSERT_TRUE(test::wait_until_listening(kPort, 30s)) << p.err();
  const std::string reply = test::exchange(kPort, "GET /stats.json HTTP/1.1\r\n\r\n");
  EXPECT_NE(reply.find("\r\n\r\n{\"last_chunk_speed\": 0,"), std::string::npos) << reply;
  EXPECT_TRUE(p.running());
  p.kill();
}

}  // namespace
}  // namespace skerir
