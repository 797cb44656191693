// The engine driven directly (no client socket), where the test decides when the buffer is
// drained: the buffer limit, the cached playlist, and the band held by a full buffer.
#include <gtest/gtest.h>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"
#include "support/hls_fixture.h"
#include "support/log_capture.h"
#include "support/scripted_origin.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using test::Presentation;
using test::Reply;
using test::ScriptedOrigin;

// Reads everything the engine writes until it has finished and the buffer is empty.
std::string drain(CBuffer& buffer, MasterPlaylist& mpl, std::chrono::seconds timeout) {
  std::string out;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (buffer.size.load() == 0 && mpl.should_finish) break;
    char* p = nullptr;
    const uint64_t n = buffer.read_get_available(&p);
    if (n == 0) continue;
    out.append(p, n);
    buffer.read_notify_read(n);
  }
  return out;
}

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }
  ScriptedOrigin origin;
  Stats stats;
  CBuffer buffer;
};

TEST_F(EngineTest, FullBufferPausesDownloadsAndTheQueuedPlaylistIsReused) {
  const Presentation p{"full", {500000}, 1, 10, 100 * 1024};
  p.install(origin);
  MasterPlaylist mpl(origin.url(p.master_path()), &buffer, 250 * 1024, &stats, 0);
  ASSERT_TRUE(mpl.start_refreshing());

  auto& log = LogCapture::instance();
  ASSERT_TRUE(log.wait_for("buffer is full - not downloading more chunks ...", 60s));
  // Three segments of 100 KiB reach the 250 KiB limit; the pass stops with the rest queued
  // and waits 0.65 x 2 s before the next refresh, which reuses the queue.
  ASSERT_TRUE(
      log.wait_for("Chunklist: Using cached playlist (still got 7 chunks in advance)", 60s));
  EXPECT_GE(log.count("not yet refresh time: 1"), 1u);
  EXPECT_EQ(buffer.size.load(), 3u * 100 * 1024);
  EXPECT_EQ(origin.request_count(p.playlist_path(0)), 1u);

  const std::string body = drain(buffer, mpl, 120s);
  mpl.finish();
  const test::Delivery d = test::delivered_segments(origin, p);
  ASSERT_EQ(d.segments.size(), 10u);
  EXPECT_EQ(body, d.bytes);
  // The playlist is fetched again only once fewer than five chunks are queued.
  EXPECT_LT(origin.request_count(p.playlist_path(0)), 4u);
}

TEST_F(EngineTest, SlowSegmentKeepsTheVariantWhileTheBufferIsAdequate) {
  const Presentation p{"adequate", {300000, 1600000}, 1, 6, 150 * 1024};
  p.install(origin);
  Reply slow = Reply::ok(test::segment_bytes(1, 3, p.segment_size));
  slow.rate = 64 * 1024;  // 512 kbit/s: under half of 1600 kbit/s
  origin.set(p.segment_path(1, 3), slow);

  MasterPlaylist mpl(origin.url(p.master_path()), &buffer, 400 * 1024, &stats, 0);
  ASSERT_TRUE(mpl.start_refreshing());
  auto& log = LogCapture::instance();
  ASSERT_TRUE(log.wait_for("sudden speed drop! falling down immediately!", 60s));
  ASSERT_TRUE(log.wait_for(
      "download is slow, but buffer is adequate -> select variant canceled (460800 / 409600", 60s));
  mpl.finish();
  EXPECT_EQ(log.count("selected variant bitrate: 1600000URL: " + origin.url(p.playlist_path(1))),
            1u);
  EXPECT_EQ(log.count("selected variant bitrate: 300000URL: " + origin.url(p.playlist_path(0))),
            1u);
}

TEST_F(EngineTest, FinishJoinsEveryThreadWhateverTheEngineIsDoing) {
  // Stalled segments keep a fill pass inside a transfer or a retry pause.
  const Presentation p{"stuck", {500000}, 1, 4, 10 * 1024};
  p.install(origin);
  Reply stuck = Reply::ok(test::segment_bytes(0, 2, p.segment_size));
  stuck.stall_at = 10;
  stuck.stall_for = 60s;
  origin.set(p.segment_path(0, 2), stuck);
  for (int waited_events = 0; waited_events < 3; ++waited_events) {
    LogCapture::instance().clear();
    CBuffer b;
    MasterPlaylist mpl(origin.url(p.master_path()), &b, 1 << 20, &stats, 0);
    ASSERT_TRUE(mpl.start_refreshing());
    const std::string events[] = {"refresh timer called",
                                  "getting chunk from " + origin.url(p.segment_path(0, 2)),
                                  "chunk get from " + origin.url(p.segment_path(0, 2)) + " FAILED"};
    ASSERT_TRUE(LogCapture::instance().wait_for(events[waited_events], 60s));
    const auto start = std::chrono::steady_clock::now();
    mpl.finish();  // must return: the transfer watches should_finish, the pauses wake on it
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    b.clean();
  }
}

}  // namespace
}  // namespace skerir
