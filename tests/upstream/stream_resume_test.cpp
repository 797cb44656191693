// A segment cut by a receive time-out, resumed with a Range request from stream_pos.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/scripted_origin.h"
#include "upstream/ucurl.h"
#include "upstream_fixture.h"

namespace skerir::test {
namespace {

using StreamResume = UpstreamTest;

const std::string kKey = "fedcba9876543210";
// Not on a 16-byte boundary, so the cut also splits a cipher block.
constexpr size_t kCutAt = 700001;

// Serves `plain` (encrypted with `key` when given), the first time stalling after kCutAt body
// bytes for longer than the client waits.
void script_cut(ScriptedOrigin& origin, const std::string& path, const std::string& plain,
                const std::string& key) {
  Reply whole = Reply::ok(plain);
  whole.encrypt_key = key;
  Reply stalls = whole;
  stalls.stall_at = kCutAt;
  stalls.stall_for = std::chrono::seconds(60);  // cut short when the origin goes
  origin.push_next(path, stalls);
  origin.set(path, whole);
}

void expect_resumed(ScriptedOrigin& origin, const std::string& path, const std::string& key,
                    const std::string& plain, size_t served_size) {
  CBuffer buffer;
  UCurl u;
  double speed = 0;
  EXPECT_EQ(u.get_stream(origin.url(path), &buffer, false, speed, key, nullptr, 0), -1);
  EXPECT_TRUE(UpstreamTest::err_has("Excep: recv timeout2"));
  EXPECT_FALSE(u.sock.valid());
  EXPECT_EQ(u.stream_pos, kCutAt);
  EXPECT_EQ(u.decrypt_ctx != nullptr, !key.empty());  // kept only for the resuming call

  const unsigned long from = u.stream_pos;
  EXPECT_EQ(u.get_stream(origin.url(path), &buffer, false, speed, key, nullptr, from),
            static_cast<int64_t>(served_size - kCutAt));
  EXPECT_EQ(u.stream_pos, served_size);
  EXPECT_EQ(u.decrypt_ctx, nullptr);
  EXPECT_TRUE(UpstreamTest::err_has("DEBUG: from bytes specified! " + std::to_string(kCutAt)));

  const auto reqs = origin.requests(path);
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[0].range, "");
  EXPECT_EQ(reqs[1].range, "bytes=" + std::to_string(kCutAt) + "-");
  const std::string got = drain(buffer);
  EXPECT_EQ(got.size(), plain.size());
  EXPECT_TRUE(got == plain);
}

TEST_F(StreamResume, ClearSegmentContinuesAtTheCut) {
  const std::string plain = pattern(1500000, 11);
  ScriptedOrigin origin;
  script_cut(origin, "/clear.ts", plain, "");
  expect_resumed(origin, "/clear.ts", "", plain, plain.size());
}

TEST_F(StreamResume, EncryptedSegmentContinuesTheCipherState) {
  const std::string plain = pattern(1500000, 12);
  ScriptedOrigin origin;
  script_cut(origin, "/enc.ts", plain, kKey);
  expect_resumed(origin, "/enc.ts", kKey, plain, aes128_cbc_encrypt(plain, kKey).size());
}

}  // namespace
}  // namespace skerir::test
