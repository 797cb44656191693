#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"
#include "support/log_capture.h"

namespace skerir {
namespace {

using test::LogCapture;
using Lines = std::vector<std::string>;

constexpr uint64_t kAllOnes = UINT64_MAX;
constexpr unsigned long kMaxBuffer = 1000000;

std::string variant_url(size_t i) { return "http://o/v" + std::to_string(i) + ".m3u8"; }

// An engine with a given list of variants, a buffer and a statistics record, as the stream
// endpoint builds it; select_variant is driven by setting the average speed and buffer size.
class SelectionTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }

  void use_variants(const std::vector<uint64_t>& bandwidths) {
    for (size_t i = 0; i < bandwidths.size(); ++i) {
      master.variants.push_back({bandwidths[i], variant_url(i), false});
    }
  }

  // select_variant at `avg` kbit/s; returns its result and leaves the log lines it wrote.
  bool select_at(uint64_t avg) {
    LogCapture::instance().clear();
    stats.avg_speed.store(avg);
    return master.select_variant();
  }

  Lines out() const { return LogCapture::instance().lines(LogStream::out); }
  Lines err() const { return LogCapture::instance().lines(LogStream::err); }

  // Index of the selected entry in `variants`, -1 when none.
  long selected_index() const {
    return master.selected == nullptr ? -1 : master.selected - master.variants.data();
  }

  void expect_selected(long index, uint64_t low, uint64_t high) {
    EXPECT_EQ(selected_index(), index);
    EXPECT_EQ(master.boundary_low, low);
    EXPECT_EQ(master.boundary_high, high);
    ASSERT_NE(master.variant, nullptr);
    EXPECT_EQ(master.variant->url, variant_url(static_cast<size_t>(index)));
    EXPECT_EQ(master.variant->target_duration, 1u);
    EXPECT_TRUE(master.variant->chunks.empty());
  }

  Stats stats;
  CBuffer buffer;
  MasterPlaylist master{"http://o/master.m3u8", &buffer, kMaxBuffer, &stats, 0};
};

using VariantChoice = SelectionTest;
using VariantBand = SelectionTest;
using VariantSelectionFailure = SelectionTest;

TEST_F(VariantChoice, TakesTheHighestCoveredBandwidthAndLogsEveryStep) {
  const struct {
    const char* name;
    std::vector<uint64_t> bandwidths;
    uint64_t avg;
    long best;
    uint64_t low, high;
    Lines log;
  } cases[] = {
      {"1000 kbit/s covers 1000000 (976) but not 2000000 (1953)",
       {500000, 1000000, 2000000},
       1000,
       1,
       1000000,
       2400000,
       {"select variant, curr avg in bps: 1024000", "SELECT: min: 500000 max: 2000000",
        "SELECT BEST kbps: 488CUR bps: 1000", "SELECT BEST kbps: 488CUR bps: 1000",
        "SELECT NEW BEST: 1000000", "SELECT BEST kbps: 976CUR bps: 1000",
        "SELECT BEST first higher bps: 2000000CUR BEST bps: 1000000",
        "SELECT BEST first higher bps: 2000000CUR BEST bps: 1000000",
        "SELECT BEST first higher bps: 2000000CUR BEST bps: 1000000",
        "selected variant bitrate: 1000000URL: http://o/v1.m3u8",
        "boundary low: 1000000 high: 2400000"}},
      {"no speed yet: the lowest, its band up to 1.2 x the next",
       {500000, 1000000, 2000000},
       0,
       0,
       0,
       1200000,
       {"select variant, curr avg in bps: 0", "SELECT: min: 500000 max: 2000000",
        "SELECT BEST kbps: 488CUR bps: 0", "SELECT BEST kbps: 488CUR bps: 0",
        "SELECT BEST kbps: 488CUR bps: 0",
        "SELECT BEST first higher bps: 2000000CUR BEST bps: 500000",
        "SELECT BEST first higher bps: 2000000CUR BEST bps: 500000",
        "SELECT NEW BEST first higher: 1000000",
        "SELECT BEST first higher bps: 1000000CUR BEST bps: 500000",
        "selected variant bitrate: 500000URL: http://o/v0.m3u8", "boundary low: 0 high: 1200000"}},
      {"faster than every variant: the highest, with no upper edge",
       {500000, 1000000, 2000000},
       5000,
       2,
       2000000,
       kAllOnes,
       {"select variant, curr avg in bps: 5120000", "SELECT: min: 500000 max: 2000000",
        "SELECT BEST kbps: 488CUR bps: 5000", "SELECT BEST kbps: 488CUR bps: 5000",
        "SELECT NEW BEST: 1000000", "SELECT BEST kbps: 976CUR bps: 5000",
        "SELECT NEW BEST: 2000000", "SELECT BEST first higher bps: 2000000CUR BEST bps: 2000000",
        "SELECT BEST first higher bps: 2000000CUR BEST bps: 2000000",
        "SELECT BEST first higher bps: 2000000CUR BEST bps: 2000000",
        "selected variant bitrate: 2000000URL: http://o/v2.m3u8",
        "boundary low: 2000000 high: 18446744073709551615"}},
      {"equal bandwidths: the earliest entry wins",
       {1000000, 500000, 1000000},
       5000,
       0,
       1000000,
       kAllOnes,
       {"select variant, curr avg in bps: 5120000", "SELECT: min: 500000 max: 1000000",
        "SELECT BEST kbps: 488CUR bps: 5000", "SELECT NEW BEST: 1000000",
        "SELECT BEST kbps: 976CUR bps: 5000", "SELECT BEST kbps: 976CUR bps: 5000",
        "SELECT BEST first higher bps: 1000000CUR BEST bps: 1000000",
        "SELECT BEST first higher bps: 1000000CUR BEST bps: 1000000",
        "SELECT BEST first higher bps: 1000000CUR BEST bps: 1000000",
        "selected variant bitrate: 1000000URL: http://o/v0.m3u8",
        "boundary low: 1000000 high: 18446744073709551615"}},
      {"equal lowest bandwidths: the earliest is the minimum",
       {800000, 300000, 300000},
       0,
       1,
       0,
       960000,
       {"select variant, curr avg in bps: 0", "SELECT: min: 300000 max: 800000",
        "SELECT BEST kbps: 292CUR bps: 0", "SELECT BEST kbps: 292CUR bps: 0",
        "SELECT BEST kbps: 292CUR bps: 0",
        "SELECT BEST first higher bps: 800000CUR BEST bps: 300000",
        "SELECT BEST first higher bps: 800000CUR BEST bps: 300000",
        "SELECT BEST first higher bps: 800000CUR BEST bps: 300000",
        "selected variant bitrate: 300000URL: http://o/v1.m3u8", "boundary low: 0 high: 960000"}},
      {"a single variant has an unbounded band from 0",
       {700000},
       3,
       0,
       0,
       kAllOnes,
       {"select variant, curr avg in bps: 3072", "SELECT: min: 700000 max: 700000",
        "SELECT BEST kbps: 683CUR bps: 3",
        "SELECT BEST first higher bps: 700000CUR BEST bps: 700000",
        "selected variant bitrate: 700000URL: http://o/v0.m3u8",
        "boundary low: 0 high: 18446744073709551615"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    master.variants.clear();
    master.selected = nullptr;
    master.variant.reset();
    master.boundary_low = master.boundary_high = 0;
    use_variants(c.bandwidths);
    EXPECT_TRUE(select_at(c.avg));
    expect_selected(c.best, c.low, c.high);
    EXPECT_EQ(out(), c.log);
    EXPECT_TRUE(err().empty());
  }
}

TEST_F(VariantChoice, UpperEdgeIsTruncatedAndSaturates) {
  const struct {
    std::vector<uint64_t> bandwidths;
    uint64_t high;  // with the lowest selected (avg 0)
  } cases[] = {
      {{102400, 1000001}, 1200001},                             // 1200001.2 truncated
      {{102400, 1000004}, 1200004},                             // 1200004.8 truncated, not rounded
      {{102400, 16000000000000000000ull, kAllOnes}, kAllOnes},  // 1.92e19 is past 2^64
      {{102400, kAllOnes}, kAllOnes},
  };
  for (const auto& c : cases) {
    master.variants.clear();
    master.selected = nullptr;
    master.boundary_low = master.boundary_high = 0;
    use_variants(c.bandwidths);
    ASSERT_TRUE(select_at(0));
    EXPECT_EQ(selected_index(), 0);
    EXPECT_EQ(master.boundary_high, c.high) << c.bandwidths[1];
  }
}

TEST_F(VariantBand, KeepsTheVariantInsideItsBandAndSwitchesAtItsEdges) {
  use_variants({500000, 1000000, 2000000});
  ASSERT_TRUE(select_at(1000));  // band [1000000, 2400000) bit/s: [976, 2343) kbit/s
  PlaylistVariantDef* const middle = master.selected;
  VariantPlaylist* const playlist = master.variant.get();

  for (uint64_t avg : {976u, 1500u, 2342u}) {
    SCOPED_TRACE(avg);
    EXPECT_TRUE(select_at(avg));
    EXPECT_EQ(master.selected, middle);
    EXPECT_EQ(master.variant.get(), playlist) << "a kept variant keeps its media playlist";
    EXPECT_EQ(out(), Lines{"select variant, curr avg in bps: " + std::to_string(avg << 10)});
  }

  EXPECT_TRUE(select_at(2343));  // reaches 1.2 x the next higher: up
  expect_selected(2, 2000000, kAllOnes);
  EXPECT_TRUE(select_at(1000));  // below 2000000's own bitrate, empty buffer: down
  expect_selected(1, 1000000, 2400000);
  EXPECT_TRUE(select_at(975));
  expect_selected(0, 0, 1200000);
  EXPECT_TRUE(select_at(0));  // the lowest band reaches down to 0
  expect_selected(0, 0, 1200000);
  EXPECT_EQ(out(), Lines{"select variant, curr avg in bps: 0"});
}

TEST_F(VariantBand, AWellFilledBufferCancelsASwitchDown) {
  const struct {
    const char* name;
    unsigned long max_buffer;
    uint64_t size;
    bool kept;
  } cases[] = {
      {"60 % full", kMaxBuffer, 600000, true},
      {"59 % full", kMaxBuffer, 590000, false},
      {"just under 60 %", kMaxBuffer, 599999, false},
      {"over full", kMaxBuffer, 5000000, true},
      // 2^24 + 1 becomes 2^24 as a float, which moves the 60 % mark below 10066330.
      {"compared as floats", 16777217, 10066330, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MasterPlaylist engine("http://o/master.m3u8", &buffer, c.max_buffer, &stats, 0);
    for (uint64_t bw : {500000ull, 1000000ull, 2000000ull}) {
      engine.variants.push_back({bw, "http://o/" + std::to_string(bw), false});
    }
    stats.avg_speed.store(1000);
    ASSERT_TRUE(engine.select_variant());
    ASSERT_EQ(engine.selected, &engine.variants[1]);

    LogCapture::instance().clear();
    buffer.size.store(c.size);
    stats.avg_speed.store(900);  // below 976, the selected variant's own rate
    EXPECT_TRUE(engine.select_variant());
    buffer.size.store(0);
    if (c.kept) {
      EXPECT_EQ(engine.selected, &engine.variants[1]);
      EXPECT_EQ(engine.boundary_low, 1000000u);
      EXPECT_EQ(engine.boundary_high, 2400000u);
      EXPECT_EQ(out(), (Lines{"select variant, curr avg in bps: 921600",
                              "download is slow, but buffer is adequate -> select variant "
                              "canceled (" +
                                  std::to_string(c.size) + " / " + std::to_string(c.max_buffer)}));
    } else {
      EXPECT_EQ(engine.selected, &engine.variants[0]);
      EXPECT_EQ(engine.boundary_low, 0u);
      EXPECT_EQ(engine.boundary_high, 1200000u);
      EXPECT_EQ(LogCapture::instance().count_containing("select variant canceled"), 0u);
    }
  }
}

TEST_F(VariantBand, AnInvalidSelectionIsReplacedEvenInsideItsBand) {
  use_variants({500000, 1000000, 2000000});
  ASSERT_TRUE(select_at(1000));
  master.selected->invalid = true;
  EXPECT_TRUE(select_at(1000));
  expect_selected(0, 0, 2400000);  // the next higher valid one is now 2000000
  EXPECT_EQ(out(),
            (Lines{"select variant, curr avg in bps: 1024000", "SELECT: min: 500000 max: 2000000",
                   "SELECT BEST kbps: 488CUR bps: 1000", "SELECT BEST kbps: 488CUR bps: 1000",
                   "SELECT BEST first higher bps: 2000000CUR BEST bps: 500000",
                   "SELECT BEST first higher bps: 2000000CUR BEST bps: 500000",
                   "selected variant bitrate: 500000URL: http://o/v0.m3u8",
                   "boundary low: 0 high: 2400000"}));
}

TEST_F(VariantSelectionFailure, NoValidVariantLeavesNothingSelected) {
  // Nothing parsed at all.
  EXPECT_FALSE(select_at(1000));
  EXPECT_EQ(master.selected, nullptr);
  EXPECT_EQ(master.variant, nullptr);
  EXPECT_EQ(out(), Lines{"select variant, curr avg in bps: 1024000"});

  // Every variant marked invalid in turn, as failing media playlists do.
  use_variants({500000, 1000000, 2000000});
  ASSERT_TRUE(select_at(1000));
  for (int round = 0; round < 2; ++round) {
    master.selected->invalid = true;
    ASSERT_TRUE(select_at(1000));
  }
  master.selected->invalid = true;
  EXPECT_FALSE(select_at(1000));
  EXPECT_EQ(master.selected, nullptr);
  EXPECT_EQ(master.variant, nullptr);
  EXPECT_EQ(out(), Lines{"select variant, curr avg in bps: 1024000"});
  EXPECT_TRUE(err().empty());

  // The band of the last choice is still set: a speed inside it finds nothing selected.
  ASSERT_EQ(master.boundary_low, 0u);
  EXPECT_FALSE(select_at(0));
  EXPECT_EQ(err(), Lines{"Unable no variant chosen!"});
  EXPECT_EQ(master.selected, nullptr);
}

}  // namespace
}  // namespace skerir
