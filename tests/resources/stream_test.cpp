// "/stream" end to end over real sockets: the in-process server, the scripted origin, and a
// client reading the body until the server closes it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "support/hls_fixture.h"
#include "support/log_capture.h"
#include "support/scripted_origin.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
using test::Delivery;
using test::LogCapture;
using test::Presentation;
using test::Reply;
using test::ScriptedOrigin;
using test::StreamResult;
using test::TestServer;

constexpr auto kStreamDeadline = 120s;

const std::string kStreamHead =
    "HTTP/1.0 200 Streaming...\r\nContent-Type: application/octet-stream\r\n"
    "Connection: close\r\nAllow: GET, HEAD\r\nCache-Control: no-cache\r\n"
    "Access-Control-Allow-Origin: *\r\n\r\n";

std::vector<uint64_t> sequences(const Delivery& d) {
  std::vector<uint64_t> out;
  for (const auto& s : d.segments) out.push_back(s.second);
  return out;
}

std::vector<uint64_t> range(uint64_t first, uint64_t last) {
  std::vector<uint64_t> out;
  for (uint64_t s = first; s <= last; ++s) out.push_back(s);
  return out;
}

class StreamTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }

  // Waits for the endpoint's last line, so every engine thread has been joined.
  static void expect_cleanup() {
    EXPECT_TRUE(LogCapture::instance().wait_for("mpl finish and cleanup!", 60s));
  }

  // Streams `p` from `o` through a fresh server until the server closes, waits for the
  // clean-up, and checks that the body is exactly the segments the engine reported
  // delivering. Returns those segments.
  static Delivery stream_checked(const ScriptedOrigin& o, const Presentation& p,
                                 const std::string& query = "") {
    TestServer server;
    const StreamResult r =
        test::fetch_stream(server.port(), o.url(p.master_path()), kStreamDeadline, query);
    EXPECT_TRUE(r.closed) << p.name << query;
    EXPECT_EQ(r.head, kStreamHead);
    expect_cleanup();
    Delivery d = test::delivered_segments(o, p);
    EXPECT_TRUE(r.body == d.bytes) << p.name << query << ": body of " << r.body.size()
                                   << " bytes, delivered " << d.bytes.size();
    return d;
  }

  ScriptedOrigin origin;
};

TEST_F(StreamTest, VodDeliversEverySegmentOnceInOrderAndCloses) {
  const Presentation p{"vod", {300000, 800000, 1600000}, 1, 6, 150 * 1024};
  p.install(origin);
  TestServer server;
  const StreamResult r =
      test::fetch_stream(server.port(), origin.url(p.master_path()), kStreamDeadline);
  ASSERT_TRUE(r.closed);
  EXPECT_EQ(r.head, kStreamHead);
  expect_cleanup();

  const Delivery d = test::delivered_segments(origin, p);
  EXPECT_EQ(sequences(d), range(1, 6));
  EXPECT_TRUE(r.body == d.bytes) << "body of " << r.body.size() << " bytes, delivered "
                                 << d.bytes.size();
  // A fresh process starts at the lowest variant; loopback speed then moves it up, never down.
  EXPECT_EQ(d.segments.front().first, 0);
  for (size_t i = 1; i < d.segments.size(); ++i) {
    EXPECT_GE(d.segments[i].first, d.segments[i - 1].first);
  }
  const int last_variant = d.segments.back().first;
  EXPECT_EQ(server.stats().selected_profile.load(), p.bandwidths[last_variant] >> 10);
  EXPECT_GT(server.stats().last_chunk_speed.load(), 0u);
  EXPECT_GT(server.stats().avg_speed.load(), 0u);
  EXPECT_EQ(LogCapture::instance().count("start_refreshing failed!"), 0u);
}

TEST_F(StreamTest, StartFromSkipsOnTheFirstPassOnly) {
  const struct {
    std::string query;
    uint64_t first;
    size_t skipped;
  } cases[] = {{"&startFrom=2", 3, 2},
               {"&startFrom=-2", 5, 4},
               {"&startFrom=abc", 1, 0},
               {"&startFrom=-9", 1, 0}};
  for (const auto& c : cases) {
    LogCapture::instance().clear();
    ScriptedOrigin o;
    const Presentation p{"sf", {500000}, 1, 6, 20 * 1024};
    p.install(o);
    EXPECT_EQ(sequences(stream_checked(o, p, c.query)), range(c.first, 6)) << c.query;
    EXPECT_EQ(LogCapture::instance().count_containing(" as required by startFrom"), c.skipped)
        << c.query;
  }
}

TEST_F(StreamTest, LiveWindowStreamsWithoutGapsAndEndsAfterSixEmptyReloads) {
  // One segment per target duration, a window of three, twelve segments in all.
  const Presentation p{"live", {500000}, 1, 12, 30 * 1024, 2, false};
  for (uint64_t seq = 1; seq <= 12; ++seq) {
    origin.set(p.segment_path(0, seq), Reply::ok(test::segment_bytes(0, seq, p.segment_size)));
  }
  auto publish = [&](uint64_t newest) {
    test::MediaPlaylistPlan plan;
    plan.target_duration = p.target_duration;
    plan.endlist = false;
    plan.media_sequence = newest > 3 ? newest - 2 : 1;
    for (uint64_t s = plan.media_sequence; s <= newest; ++s) {
      plan.segments.push_back({s, p.segment_path(0, s), ""});
    }
    origin.set(p.playlist_path(0), Reply::ok(test::media_playlist(origin, plan)));
  };
  publish(3);
  origin.set(p.master_path(),
             Reply::ok(test::master_playlist(origin, {{500000, p.playlist_path(0)}})));

  std::atomic<bool> stop{false};
  std::thread grower([&] {
    for (uint64_t newest = 4; newest <= 12 && !stop; ++newest) {
      std::this_thread::sleep_for(std::chrono::seconds(p.target_duration));
      publish(newest);
    }
  });
  const Delivery d = stream_checked(origin, p);
  stop = true;
  grower.join();
  EXPECT_EQ(sequences(d), range(1, 12));
  EXPECT_EQ(LogCapture::instance().count("no new chunks in many playlist reloads"), 1u);
  // Each pass waits 0.65 x 2 s, counted down once a second, before the next refresh.
  EXPECT_GE(LogCapture::instance().count("not yet refresh time: 1"), 1u);
}

TEST_F(StreamTest, SuddenSpeedDropSwitchesDownWithoutGapsOrRepeats) {
  // Loopback speed lifts the stream to the top variant; from segment 4 on the top variant is
  // throttled far below half its bitrate, which must send it straight back down.
  const Presentation p{"drop", {300000, 800000, 1600000}, 1, 8, 24 * 1024};
  p.install(origin);
  for (uint64_t seq = 4; seq <= 8; ++seq) {
    Reply slow = Reply::ok(test::segment_bytes(2, seq, p.segment_size));
    slow.rate = 24 * 1024;  // 192 kbit/s against a 1600 kbit/s variant
    origin.set(p.segment_path(2, seq), slow);
  }
  const Delivery d = stream_checked(origin, p);
  EXPECT_EQ(sequences(d), range(1, 8));
  EXPECT_GE(LogCapture::instance().count("sudden speed drop! falling down immediately!"), 1u);
  // Up to the top first, then down again after the drop.
  bool reached_top = false, came_down = false;
  for (const auto& [v, seq] : d.segments) {
    if (v == 2) reached_top = true;
    if (reached_top && v < 2) came_down = true;
  }
  EXPECT_TRUE(reached_top);
  EXPECT_TRUE(came_down);
}

TEST_F(StreamTest, EncryptedSegmentsFetchEachKeyOnceAndStreamThePlaintext) {
  const std::string key_a = "0123456789abcdef", key_b = "fedcba9876543210";
  const Presentation p{"aes", {500000}, 1, 6, 70 * 1024 + 5};
  test::MediaPlaylistPlan plan;
  for (uint64_t seq = 1; seq <= 6; ++seq) {
    const bool first_half = seq <= 3;
    plan.segments.push_back(
        {seq, p.segment_path(0, seq), first_half ? "/aes/a.key" : "/aes/b.key"});
    Reply body = Reply::ok(test::segment_bytes(0, seq, p.segment_size));
    body.encrypt_key = first_half ? key_a : key_b;
    origin.set(p.segment_path(0, seq), body);
  }
  origin.set("/aes/a.key", Reply::ok(key_a));
  origin.set("/aes/b.key", Reply::ok(key_b));
  origin.set(p.playlist_path(0), Reply::ok(test::media_playlist(origin, plan)));
  origin.set(p.master_path(),
             Reply::ok(test::master_playlist(origin, {{500000, p.playlist_path(0)}})));

  EXPECT_EQ(sequences(stream_checked(origin, p)), range(1, 6));
  EXPECT_EQ(origin.request_count("/aes/a.key"), 1u);
  EXPECT_EQ(origin.request_count("/aes/b.key"), 1u);
  EXPECT_EQ(
      LogCapture::instance().count("getting new decryption key from: " + origin.url("/aes/b.key")),
      1u);
}

TEST_F(StreamTest, StalledSegmentResumesWithRangeByteExact) {
  for (const bool encrypted : {false, true}) {
    LogCapture::instance().clear();
    ScriptedOrigin o;
    const std::string key = "k-0123456789abcd";
    const Presentation p{encrypted ? "cutaes" : "cut", {500000}, 1, 3, 300 * 1024 + 7};
    test::MediaPlaylistPlan plan;
    for (uint64_t seq = 1; seq <= 3; ++seq) {
      plan.segments.push_back({seq, p.segment_path(0, seq), encrypted ? "/k.key" : ""});
      Reply body = Reply::ok(test::segment_bytes(0, seq, p.segment_size));
      if (encrypted) body.encrypt_key = key;
      o.set(p.segment_path(0, seq), body);
    }
    // Segment 2 stalls for longer than the receive time-out once, after 100,000 bytes.
    Reply stall = Reply::ok(test::segment_bytes(0, 2, p.segment_size));
    if (encrypted) stall.encrypt_key = key;
    stall.stall_at = 100000;
    stall.stall_for = 4s;
    o.push_next(p.segment_path(0, 2), stall);
    o.set("/k.key", Reply::ok(key));
    o.set(p.playlist_path(0), Reply::ok(test::media_playlist(o, plan)));
    o.set(p.master_path(), Reply::ok(test::master_playlist(o, {{500000, p.playlist_path(0)}})));

    EXPECT_EQ(sequences(stream_checked(o, p)), range(1, 3)) << encrypted;
    const auto requests = o.requests(p.segment_path(0, 2));
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].range, "bytes=100000-");
    EXPECT_EQ(LogCapture::instance().count("retry chunk get from " + o.url(p.segment_path(0, 2)) +
                                           " starting from byte 100000"),
              1u);
  }
}

TEST_F(StreamTest, FailingSegmentsAreSkippedAndFourInARowEndTheStream) {
  // Segment 2 always answers 404: four attempts, then it is dropped and the stream goes on.
  {
    const Presentation p{"skip", {500000}, 1, 4, 10 * 1024};
    p.install(origin);
    origin.set(p.segment_path(0, 2), Reply::status_only(404));
    EXPECT_EQ(sequences(stream_checked(origin, p)), (std::vector<uint64_t>{1, 3, 4}));
    const std::string url = origin.url(p.segment_path(0, 2));
    EXPECT_EQ(LogCapture::instance().count("chunk get from " + url + " FAILED"), 4u);
    EXPECT_EQ(LogCapture::instance().count("retry chunk get from " + url + " starting from byte 0"),
              3u);
    EXPECT_EQ(LogCapture::instance().count("too many failed subsequent chunks. Finishing stream."),
              0u);
  }
  // Segments 2 to 5 all fail: the fourth dropped in a row ends the stream before segment 6.
  {
    LogCapture::instance().clear();
    ScriptedOrigin o;
    const Presentation p{"dead", {500000}, 1, 6, 10 * 1024};
    p.install(o);
    for (uint64_t seq = 2; seq <= 5; ++seq) o.set(p.segment_path(0, seq), Reply::status_only(500));
    EXPECT_EQ(sequences(stream_checked(o, p)), (std::vector<uint64_t>{1}));
    EXPECT_EQ(LogCapture::instance().count("too many failed subsequent chunks. Finishing stream."),
              1u);
    EXPECT_EQ(o.request_count(p.segment_path(0, 6)), 0u);
  }
}

TEST_F(StreamTest, UnavailablePlaylistsEndTheStreamWithItsMessages) {
  // Every media playlist fails: each variant is marked invalid in turn, then the stream ends.
  {
    const Presentation p{"noplaylist", {300000, 800000, 1600000}, 1, 3, 1024};
    p.install(origin);
    // A bare status line: nothing is left over to garble the retries, so every variant fails
    // within a second or so and the stream ends before the no-data time-out.
    for (int v = 0; v < 3; ++v) {
      origin.set(p.playlist_path(v), Reply::raw_bytes("HTTP/1.1 404 Not Found\r\n"));
    }
    TestServer server;
    const StreamResult r =
        test::fetch_stream(server.port(), origin.url(p.master_path()), kStreamDeadline);
    ASSERT_TRUE(r.closed);
    expect_cleanup();
    EXPECT_EQ(r.head, kStreamHead);
    EXPECT_EQ(r.body, "");
    EXPECT_EQ(LogCapture::instance().count("marking this variant as invalid"), 3u);
    for (int v = 0; v < 3; ++v) EXPECT_GE(origin.request_count(p.playlist_path(v)), 1u) << v;
  }
  // The master playlist fails: the header was sent, no body follows.
  {
    LogCapture::instance().clear();
    TestServer server;
    const StreamResult r =
        test::fetch_stream(server.port(), origin.url("/missing/master.m3u8"), kStreamDeadline);
    ASSERT_TRUE(r.closed);
    expect_cleanup();
    EXPECT_EQ(r.head, kStreamHead);
    EXPECT_EQ(r.body, "");
    EXPECT_TRUE(LogCapture::instance().has_line(LogStream::err, "start_refreshing failed!"));
    EXPECT_TRUE(LogCapture::instance().has_line(LogStream::out, "failed to get master playlist"));
  }
  // No url parameter at all, and a URL too short for its scheme.
  for (const std::string target : {"/stream", "/stream.ts?url=http"}) {
    LogCapture::instance().clear();
    TestServer server;
    const std::string raw =
        test::exchange(server.port(), "GET " + target + " HTTP/1.1\r\n\r\n", kStreamDeadline);
    EXPECT_EQ(raw, kStreamHead) << target;
    EXPECT_TRUE(LogCapture::instance().wait_for("mpl finish and cleanup!", 60s)) << target;
    EXPECT_TRUE(LogCapture::instance().has_line(LogStream::err, "start_refreshing failed!"))
        << target;
  }
}

TEST_F(StreamTest, SilentOriginEndsTheStreamAfterFifteenSecondsWithoutData) {
  const Presentation p{"silent", {500000}, 1, 3, 10 * 1024};
  p.install(origin);
  Reply silent = Reply::ok(test::segment_bytes(0, 2, p.segment_size));
  silent.stall_before_headers = 120s;
  origin.set(p.segment_path(0, 2), silent);
  TestServer server;
  const auto start = std::chrono::steady_clock::now();
  const StreamResult r =
      test::fetch_stream(server.port(), origin.url(p.master_path()), kStreamDeadline);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  ASSERT_TRUE(r.closed);
  expect_cleanup();
  EXPECT_EQ(r.body, test::segment_bytes(0, 1, p.segment_size));
  EXPECT_TRUE(
      LogCapture::instance().has_line(LogStream::err, "no data for long time, closing stream"));
  EXPECT_GE(elapsed, 15s);
}

TEST_F(StreamTest, ClientThatLeavesEndsItsStreamAndTheServerKeepsServing) {
  const Presentation p{"leave", {500000}, 1, 40, 64 * 1024};
  p.install(origin);
  for (uint64_t seq = 1; seq <= 40; ++seq) {
    Reply slow = Reply::ok(test::segment_bytes(0, seq, p.segment_size));
    slow.rate = 256 * 1024;
    origin.set(p.segment_path(0, seq), slow);
  }
  TestServer server;
  const int fd = test::connect_loopback(server.port());
  ASSERT_GE(fd, 0);
  const std::string request =
      "GET /stream?url=" + test::url_encode(origin.url(p.master_path())) + " HTTP/1.1\r\n\r\n";
  ASSERT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(request.size()));
  std::string got;
  char buf[65536];
  while (got.size() < 100000) {
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    ASSERT_GT(n, 0);
    got.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  expect_cleanup();
  // The engine is gone: its upstream connection is closed and nothing more is fetched.
  EXPECT_TRUE(origin.wait_for_no_connections(30s));
  EXPECT_LT(test::delivered_segments(origin, p).segments.size(), 40u);
  const std::string stats = test::exchange(server.port(), "GET /stats.json HTTP/1.1\r\n\r\n");
  EXPECT_NE(stats.find("{\"last_chunk_speed\": "), std::string::npos);
}

TEST_F(StreamTest, TwentyConcurrentStreamsEachArriveByteExact) {
  constexpr int kStreams = 20;
  std::vector<Presentation> presentations;
  for (int i = 0; i < kStreams; ++i) {
    presentations.push_back(
        {"c" + std::to_string(i), {400000 + 1000u * i}, 1, 5, 40 * 1024 + static_cast<size_t>(i)});
    presentations.back().install(origin);
  }
  TestServer server;
  std::vector<StreamResult> results(kStreams);
  std::vector<std::thread> clients;
  for (int i = 0; i < kStreams; ++i) {
    clients.emplace_back([&, i] {
      results[i] = test::fetch_stream(server.port(), origin.url(presentations[i].master_path()),
                                      kStreamDeadline);
    });
  }
  for (auto& c : clients) c.join();
  EXPECT_TRUE(LogCapture::instance().wait_for("mpl finish and cleanup!", 60s, kStreams));
  for (int i = 0; i < kStreams; ++i) {
    ASSERT_TRUE(results[i].closed) << i;
    const Delivery d = test::delivered_segments(origin, presentations[i]);
    EXPECT_EQ(sequences(d), range(1, 5)) << i;
    EXPECT_TRUE(results[i].body == d.bytes) << i;
  }
}

}  // namespace
}  // namespace skerir
