// "/stream" end to end over real sockets: the in-process server, the scripted origin, and a
// client reading the body until the server closes it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "support/presentation.h"
#include "support/test_server.h"

namespace skerir::test {
namespace {

using namespace std::chrono_literals;
constexpr auto kDeadline = 120s;
std::vector<uint64_t> sequences(const Segments& segments) {
  std::vector<uint64_t> out;
  for (const auto& s : segments) out.push_back(s.second);
  return out;
}

std::vector<uint64_t> range(uint64_t first, uint64_t last) {
  std::vector<uint64_t> out;
  for (uint64_t s = first; s <= last; ++s) out.push_back(s);
  return out;
}

// A client with a receive window of 4 KiB, so that the server's writes block soon: it asks for
// `url`, reads nothing for `pause`, then reads until the server closes; returns the body.
std::string read_after(std::chrono::seconds pause, int port, const std::string& url) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const int window = 4096;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
  sockaddr_in sa{.sin_family = AF_INET,
                 .sin_port = htons(static_cast<uint16_t>(port)),
                 .sin_addr = {htonl(INADDR_LOOPBACK)}};
  const std::string req = "GET /stream?url=" + url_encode(url) + " HTTP/1.1\r\n\r\n";
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0)
    ::send(fd, req.data(), req.size(), 0);
  std::this_thread::sleep_for(pause);
  std::string raw;
  EXPECT_TRUE(read_until_close(fd, &raw, kDeadline));
  ::close(fd);
  EXPECT_TRUE(LogCapture::instance().wait_for("mpl finish and cleanup!", 60s));
  return raw.substr(std::min(raw.size(), raw.find("\r\n\r\n") + 4));
}

class Stream : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }

  // Streams `p` (from `o`, or `origin`; at `master`, or its master's URL there) through
  // `server` until it closes, waits for the clean-up line (every engine thread joined) and
  // checks that the body is exactly the segments the engine reported.
  Segments stream(const Presentation& p, const std::string& query = "",
                  const ScriptedOrigin* o = nullptr, std::string master = "") {
    if (o == nullptr) o = &origin;
    if (master.empty()) master = o->url(p.master_path());
    LogCapture::instance().clear();
    const StreamResult r = fetch_stream(server.port(), master, kDeadline, query);
    EXPECT_TRUE(r.closed) << p.name << query;
    EXPECT_TRUE(LogCapture::instance().wait_for("mpl finish and cleanup!", 60s));
    const Segments d = delivered_segments(*o, p);
    EXPECT_TRUE(r.body == bytes_of(p, d)) << p.name << ": body of " << r.body.size() << " bytes";
    return d;
  }

  ScriptedOrigin origin;
  TestServer server;
};

TEST_F(Stream, VodStartsLowSwitchesUpAndDeliversEverySegmentOnce) {
  const Presentation p{"vod", {300000, 800000, 1600000}, 1, 6, 150 * 1024};
  p.install(origin);
  const Segments d = stream(p);
  EXPECT_EQ(sequences(d), range(1, 6));
  EXPECT_EQ(d.front().first, 0);  // a fresh process starts at the lowest variant
  EXPECT_EQ(d.back().first, 2);   // loopback speed lifts it to the top, never down
  for (size_t i = 1; i < d.size(); ++i) EXPECT_GE(d[i].first, d[i - 1].first);
  EXPECT_EQ(server.stats().selected_profile.load(), 1600000u >> 10);
  EXPECT_GT(server.stats().avg_speed.load(), 0u);
}

TEST_F(Stream, StartFromSkipsOnTheFirstPassOnly) {
  const Presentation p{"sf", {500000}, 1, 6, 20 * 1024};
  p.install(origin);
  const struct {
    std::string query;
    uint64_t first;
  } cases[] = {
      {"&startFrom=2", 3}, {"&startFrom=-2", 5}, {"&startFrom=abc", 1}, {"&startFrom=-9", 1}};
  for (const auto& c : cases)
    EXPECT_EQ(sequences(stream(p, c.query)), range(c.first, 6)) << c.query;
}

TEST_F(Stream, LiveWindowFollowsWithoutGapsAndEndsAfterSixEmptyReloads) {
  Presentation p{"live", {500000}, 1, 12, 30 * 1024, 2, false};
  p.install(origin);
  origin.set(p.playlist_path(0), Reply::ok(p.media_playlist(origin, 0, 1, 3)));
  std::atomic<bool> stop{false};
  std::thread grower([&] {  // one segment per target duration, a window of three
    for (uint64_t newest = 4; newest <= 12 && !stop; ++newest) {
      std::this_thread::sleep_for(2s);
      origin.set(p.playlist_path(0), Reply::ok(p.media_playlist(origin, 0, newest - 2, 3)));
    }
  });
  EXPECT_EQ(sequences(stream(p)), range(1, 12));
  stop = true;
  grower.join();
  EXPECT_EQ(LogCapture::instance().count("no new chunks in many playlist reloads", true), 1u);
}

TEST_F(Stream, AnEncoderRestartContinuesFromTheNewWindow) {
  Presentation p{"restart", {500000}, 1, 12, 20 * 1024, 2, false};
  p.install(origin);
  origin.set(p.playlist_path(0), Reply::ok(p.media_playlist(origin, 0, 10, 3)));
  std::thread encoder([&] {
    LogCapture::instance().wait_for("got chunk (seq 12)", kDeadline);
    origin.set(p.playlist_path(0), Reply::ok(p.media_playlist(origin, 0, 1, 3)));
    LogCapture::instance().wait_for("got chunk (seq 3)", kDeadline);
    p.endlist = true;
    origin.set(p.playlist_path(0), Reply::ok(p.media_playlist(origin, 0, 1, 5)));
  });
  EXPECT_EQ(sequences(stream(p)), (std::vector<uint64_t>{10, 11, 12, 1, 2, 3, 4, 5}));
  encoder.join();
  EXPECT_EQ(LogCapture::instance().count(
                "media sequence went back from 12 to 1; continuing from the new window", true),
            1u);
}

TEST_F(Stream, SuddenSpeedDropSwitchesDownWithoutGapsOrRepeats) {
  const Presentation p{"drop", {300000, 800000, 1600000}, 1, 8, 24 * 1024};
  p.install(origin);
  for (uint64_t seq = 4; seq <= 8; ++seq) {  // the top variant slows to 192 kbit/s from 4 on
    origin.set(p.segment_path(2, seq),
               {.body = segment_bytes(2, seq, p.segment_size), .rate = 24 << 10});
  }
  const Segments d = stream(p);
  EXPECT_EQ(sequences(d), range(1, 8));
  EXPECT_GE(LogCapture::instance().count("sudden speed drop! falling down immediately!"), 1u);
  const auto top = std::find_if(d.begin(), d.end(), [](const auto& s) { return s.first == 2; });
  ASSERT_NE(top, d.end());
  EXPECT_NE(std::find_if(top, d.end(), [](const auto& s) { return s.first < 2; }), d.end());
}

// The shape HLS muxers write: a master with a version tag and relative variant URIs (found
// behind a redirect), a key with an IV and a trailing newline, byte ranges of one file; the
// source answers only with its User-Agent, given in the URL's "|" suffix.
TEST_F(Stream, RelativeUrisKeyAttributesRangesAndHeadersOfARealPlaylist) {
  const std::string key = "0123456789abcdef", iv = "fedcba9876543210",
                    all = segment_bytes(0, 9, 3000);
  std::string first = segment_bytes(0, 1, 40000), xored = first;
  for (int i = 0; i < 16; ++i) xored[i] ^= iv[i];  // zero-IV CBC of this is CBC of `first`
  origin.set("/m.m3u8", Reply::redirect(302, "/real/master.m3u8"));
  origin.set(
      "/real/master.m3u8",
      Reply::ok("#EXTM3U\r\n#EXT-X-VERSION:3\r\n#EXT-X-STREAM-INF:BANDWIDTH=1,CODECS=\"a,b\"\r\n"
                "v0/prog.m3u8\r\n"));
  origin.set(
      "/real/v0/prog.m3u8",
      Reply::ok(
          "#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:1\n"
          "#EXT-X-KEY:METHOD=AES-128,URI=\"../k.bin\",IV=0x66656463626139383736353433323130\n"
          "#EXTINF:2.0,\nseg1.ts\n#EXT-X-KEY:METHOD=NONE\n#EXT-X-BYTERANGE:1000@0\n"
          "#EXTINF:2.0,\nall.ts\n#EXT-X-BYTERANGE:1\n#EXTINF:2.0,\nall.ts\n#EXT-X-ENDLIST\n"));
  origin.set("/real/k.bin", Reply::ok(key + "\n"));
  origin.set("/real/v0/seg1.ts", Reply{.body = xored, .encrypt_key = key});
  origin.set("/real/v0/all.ts", Reply::ok(all));
  const StreamResult r =
      fetch_stream(server.port(), origin.url("/m.m3u8") + "|User-Agent=t%2F1", kDeadline);
  EXPECT_TRUE(r.body == first + all.substr(0, 1001));
  for (const auto& req : origin.requests())
    EXPECT_NE(req.head.find("\r\nUser-Agent: t/1\r\n"), std::string::npos);
  EXPECT_EQ(origin.requests("/real/v0/all.ts")[1].range, "bytes=1000-1000");
  // A media playlist as the URL is the one variant, fetched once.
  EXPECT_TRUE(fetch_stream(server.port(), origin.url("/real/v0/prog.m3u8"), kDeadline).body ==
              first + all.substr(0, 1001));
  EXPECT_EQ(origin.requests("/real/v0/prog.m3u8").size(), 2u);
  // A key shorter than 16 bytes fails its segments rather than passing ciphertext on.
  origin.set("/real/k.bin", Reply::ok("short"));
  EXPECT_EQ(fetch_stream(server.port(), origin.url("/m.m3u8"), kDeadline).body,
            all.substr(0, 1001));
  EXPECT_GE(
      LogCapture::instance().count("no usable decryption key from " + origin.url("/real/k.bin")),
      4u);
}

TEST_F(Stream, FailedSegmentsAreSkippedAndFourInARowEndTheStream) {
  const Presentation p{"skip", {500000}, 1, 7, 10 * 1024};
  p.install(origin);
  origin.set(p.segment_path(0, 2), Reply::with_status(404));
  EXPECT_EQ(sequences(stream(p)), (std::vector<uint64_t>{1, 3, 4, 5, 6, 7}));
  EXPECT_EQ(LogCapture::instance().count("chunk get from " + origin.url(p.segment_path(0, 2)) +
                                         " FAILED"),
            4u);
  for (uint64_t seq = 3; seq <= 6; ++seq)
    origin.set(p.segment_path(0, seq), Reply::with_status(500));
  const size_t tried = origin.requests(p.segment_path(0, 5)).size();
  EXPECT_EQ(sequences(stream(p)), (std::vector<uint64_t>{1}));
  EXPECT_EQ(LogCapture::instance().count("too many failed subsequent chunks. Finishing stream."),
            1u);
  // The success of segment 1 reset the count: 2, 3, 4 and 5 are the four failures.
  EXPECT_GT(origin.requests(p.segment_path(0, 5)).size(), tried);
  EXPECT_EQ(origin.requests(p.segment_path(0, 7)).size(), 1u);  // only the first stream's
}

TEST_F(Stream, UnavailablePlaylistsEndTheStreamAfterItsHeader) {
  const Presentation p{"noplaylist", {300000, 800000}, 1, 3, 1024};
  p.install(origin);
  for (int v = 0; v < 2; ++v) origin.set(p.playlist_path(v), Reply{.raw = "HTTP/1.1 404 No\r\n"});
  EXPECT_TRUE(stream(p).empty());
  EXPECT_EQ(LogCapture::instance().count("marking this variant as invalid", true), 2u);
  ScriptedOrigin untrusted(false, Tls::untrusted);
  untrusted.set("/m.m3u8", Reply::ok("#EXTM3U"));
  EXPECT_TRUE(fetch_stream(server.port(), untrusted.url("/m.m3u8"), kDeadline).body.empty());
  EXPECT_EQ(
      LogCapture::instance().count(
          "TLS: certificate verify failed: self-signed certificate (" + untrusted.authority() + ")",
          true),
      4u * 6u);  // every attempt of every call
  EXPECT_TRUE(untrusted.requests().empty());
  // The server goes on serving.
  EXPECT_TRUE(fetch_stream(server.port(), origin.url("/none.m3u8"), kDeadline).body.empty());
  EXPECT_EQ(LogCapture::instance().count("failed to get master playlist", true), 2u);
}

TEST_F(Stream, APlaylistNamingSkerirItselfIsRefused) {
  const std::string self = "http://127.0.0.1:" + std::to_string(server.port()) + "/stream?url=";
  origin.set("/loop.m3u8", Reply::ok("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n" + self +
                                     url_encode(origin.url("/loop.m3u8")) + "\n"));
  EXPECT_TRUE(fetch_stream(server.port(), origin.url("/loop.m3u8"), kDeadline).closed);
  EXPECT_EQ(LogCapture::instance().count("mpl finish and cleanup!", true), 1u);  // none came back
  EXPECT_EQ(LogCapture::instance().count("Excep: refusing a request to skerir itself: 127.0.0.1:" +
                                             std::to_string(server.port()),
                                         true),
            1u);
  // Its port on another loopback address is someone else's: nothing listens there.
  const std::string other = "http://127.0.0.2:" + std::to_string(server.port()) + "/m.m3u8";
  EXPECT_TRUE(fetch_stream(server.port(), other, kDeadline).body.empty());
  EXPECT_EQ(LogCapture::instance().count("Excep: refusing a request to skerir itself"), 1u);
}

TEST_F(Stream, SilentOriginEndsTheStreamAfterFifteenSecondsWithoutData) {
  const Presentation p{"silent", {500000}, 1, 3, 10 * 1024};
  p.install(origin);
  origin.set(p.segment_path(0, 2), {.body = "never", .stall_before_headers = 120s});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(sequences(stream(p)), (std::vector<uint64_t>{1}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 15s);
  EXPECT_EQ(LogCapture::instance().count("no data for long time, closing stream", true), 1u);
}

TEST_F(Stream, ClientThatPausesPastTheSendTimeOutLosesNothing) {
  const Presentation p{"pause", {500000}, 1, 20, 300 * 1024};
  p.install(origin);
  // The server's send time-out (10 s) expires in the middle of a write.
  const std::string body = read_after(12s, server.port(), origin.url(p.master_path()));
  EXPECT_TRUE(body == bytes_of(p, delivered_segments(origin, p)));
}

}  // namespace
}  // namespace skerir::test
