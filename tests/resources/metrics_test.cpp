// "/metrics" and "/streams.json": the counters move with a scripted stream, the text passes a
// real parser of the format, and the stream list is valid JSON that hides header values.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "resources/connection_registry.h"
#include "resources/resource_stats.h"
#include "resources/resource_streams.h"
#include "support/presentation.h"
#include "support/test_server.h"
#include "util/strings.h"

namespace skerir::test {
namespace {

using namespace std::chrono_literals;

// The body of "/metrics", and its samples by "name{labels}".
std::string scrape(int port, std::map<std::string, double>* samples) {
  const std::string reply = roundtrip(port, "GET /metrics HTTP/1.0\r\n\r\n");
  EXPECT_NE(reply.find("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"),
            std::string::npos);
  std::istringstream lines(reply.substr(reply.find("\r\n\r\n") + 4));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("#")) {
      (*samples)[line.substr(0, line.rfind(' '))] = std::stod(line.substr(line.rfind(' ') + 1));
    }
  }
  return lines.str();
}

TEST(Metrics, CountersFollowAStreamWithAKeyACutAndALostSegment) {
  ScriptedOrigin origin;
  const Presentation p{"m", {300000, 800000}, 1, 4, 256 * 1024, 2, true, "0123456789abcdef"};
  p.install(origin);
  for (int v = 0; v < 2; ++v) {
    origin.set(p.segment_path(v, 2), Reply::with_status(404));  // lost in every variant
    // The first time, cut by the client's receive time-out in the middle of a cipher block.
    origin.push_next(p.segment_path(v, 3), {.body = segment_bytes(v, 3, p.segment_size),
                                            .encrypt_key = p.key,
                                            .stall_at = p.segment_size / 2 + 7,
                                            .stall_for = 60s});
  }
  TestServer server;
  std::map<std::string, double> before, after;
  scrape(server.port(), &before);
  const auto r = fetch_stream(server.port(), origin.url(p.master_path()), 120s);
  ASSERT_TRUE(r.closed);
  const std::string body = scrape(server.port(), &after);
  const auto moved = [&](const std::string& name) { return after[name] - before[name]; };
  EXPECT_EQ(moved("skerir_streams_started_total"), 1);
  EXPECT_TRUE(r.body == bytes_of(p, delivered_segments(origin, p)));
  EXPECT_EQ(r.body.size(), 3 * p.segment_size);
  EXPECT_EQ(moved("skerir_client_bytes_sent_total"), static_cast<double>(r.body.size()));
  EXPECT_EQ(moved("skerir_segments_fetched_total"), 3);
  EXPECT_EQ(moved("skerir_segments_failed_total"), 1);
  EXPECT_EQ(moved("skerir_segment_resumes_total"), 1);
  EXPECT_EQ(moved("skerir_key_fetches_total"), 1);
  EXPECT_EQ(moved("skerir_variant_switches_total{direction=\"up\"}"), 1);
  EXPECT_GE(moved("skerir_upstream_requests_total{outcome=\"ok\"}"), 8);
  EXPECT_GE(moved("skerir_upstream_requests_total{outcome=\"http_error\"}"), 4);
  EXPECT_EQ(after["skerir_stats_selected_profile"], 800000 >> 10);
  EXPECT_EQ(after["skerir_streams_active"], 0);    // left the registry before the socket closed
  EXPECT_EQ(after["skerir_connections_open"], 1);  // the scrape itself

  // The parser of Prometheus's own client library, from Debian's python3-prometheus-client.
  const std::string file = ::testing::TempDir() + "metrics.txt";
  std::ofstream(file) << body;
  ChildProcess check("/usr/bin/python3", {"-c", R"(
import sys
from prometheus_client.parser import text_string_to_metric_families as parse
families = list(parse(open(sys.argv[1]).read()))
print(len(families), [f.name for f in families if not f.documentation or f.type == "unknown"]))",
                                          file});
  EXPECT_EQ(check.wait_exit(60s), 0) << check.err();
  EXPECT_EQ(check.out(), "15 []\n");  // every family has HELP and TYPE
}

TEST(Metrics, StreamListIsValidJsonAndHidesHeaderValues) {
  EXPECT_EQ(mask_header_values("http://o/m.m3u8|User-Agent=Foo/1.0&Cookie=a=b|X=&Y"),
            "http://o/m.m3u8|User-Agent=…&Cookie=…|X=…&Y");
  auto a = std::make_shared<StreamStatus>();
  a->id = 7;
  // Quote, backslash, control, é, U+40000, junk, overlong, a surrogate: bad bytes become U+FFFD.
  a->url = "http://o/\"q\"\\\x01\xC3\xA9\xF1\x80\x80\x80\xFF\xF0\x8F\xBF\xBF\xED\xA0\x80";
  a->counters.segment_fetched(2400);
  std::string replaced;
  for (int i = 0; i < 8; ++i) replaced += "\\ufffd";
  EXPECT_EQ(ResourceStreams::body({a}),
            "[\n{\"id\":7,\"client\":\"\",\"url\":\"http://o/"
            "\\\"q\\\"\\\\\\u0001\xC3\xA9\xF1\x80\x80\x80" +
                replaced +
                "\","
                "\"start_time\":0,\"selected_bandwidth\":0,\"bytes_sent\":0,\"buffer_bytes\":0,"
                "\"last_segment_speed\":2400,\"segments_fetched\":1,\"segments_failed\":0}\n]\n");
}

TEST(Stats, SegmentSpeedsMakeAWeightedAverageUnlessOneDropsBelowHalfTheBandwidth) {
  const struct {
    std::vector<uint64_t> speeds;  // kbit/s, at a bandwidth of 1,600,000 bit/s (781 is half)
    uint64_t avg;
    bool last_kept;
  } cases[] = {
      {{800, 800, 800, 800, 800, 1700}, 1100, true},  // (3·1700 + 2·800 + 2·800 + 800 + 800) / 9
      {{900}, 300, true},
      {{781}, 260, true},
      {{800, 800, 780}, 780, false},  // a drop restarts the history from it
      {{780, 2000}, (3 * 2000 + 2 * 780 + 2 * 390 + 390 + 390) / 9, true},
  };
  for (const auto& c : cases) {
    Stats stats;
    bool kept = true;
    for (uint64_t s : c.speeds) kept = stats.record_segment(s, 5 << 10, 1600000);
    EXPECT_EQ(stats.avg_speed.load(), c.avg);
    EXPECT_EQ(kept, c.last_kept);
    EXPECT_EQ(stats.last_chunk_speed.load(), c.speeds.back());
    EXPECT_EQ(stats.cbuff_size.load(), 5u);
    EXPECT_EQ(stats.selected_profile.load(), 1562u);
  }
}

}  // namespace
}  // namespace skerir::test
