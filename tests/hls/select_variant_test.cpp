#include <gtest/gtest.h>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"

namespace skerir {
namespace {

constexpr uint64_t kAllOnes = UINT64_MAX;
constexpr unsigned long kMaxBuffer = 1000000;

struct Step {
  uint64_t avg;          // kbit/s
  uint64_t buffered;     // bytes in the buffer
  long invalidate = -1;  // variant marked invalid before the step
  bool ok;
  long selected;  // index into the variants, -1 for none
  uint64_t low, high;
  bool kept = false;  // the variant stays, with the playlist it has queued
};

// An engine whose variants are "http://o/v<i>"; each step sets the average speed and the
// buffer fill, runs select_variant and checks the choice and its band.
void run(const std::vector<uint64_t>& bandwidths, const std::vector<Step>& steps) {
  Stats stats;
  CBuffer buffer;
  MasterPlaylist m("http://o/master.m3u8", &buffer, kMaxBuffer, &stats, 0);
  for (size_t i = 0; i < bandwidths.size(); ++i) {
    m.variants.push_back({bandwidths[i], "http://o/v" + std::to_string(i), false});
  }
  for (size_t s = 0; s < steps.size(); ++s) {
    const Step& st = steps[s];
    SCOPED_TRACE("step " + std::to_string(s) + " at " + std::to_string(st.avg) + " kbit/s");
    stats.avg_speed = st.avg;
    buffer.clean();
    buffer.size = 0;
    std::string fill(st.buffered, 'x');
    buffer.write(fill.data(), fill.size());
    if (st.invalidate >= 0) m.variants[static_cast<size_t>(st.invalidate)].invalid = true;
    const VariantPlaylist* before = m.variant.get();
    if (before != nullptr) m.variant->chunks.push(Chunk{1, "queued"});
    EXPECT_EQ(m.select_variant(), st.ok);
    EXPECT_EQ(m.selected ? m.selected - m.variants.data() : -1, st.selected);
    EXPECT_EQ(m.boundary_low, st.low);
    EXPECT_EQ(m.boundary_high, st.high);
    if (st.kept) {
      EXPECT_EQ(m.variant.get(), before);
    } else if (st.selected < 0) {
      EXPECT_EQ(m.variant, nullptr);
    } else {
      ASSERT_NE(m.variant, nullptr);
      EXPECT_EQ(m.variant->url, "http://o/v" + std::to_string(st.selected));
      EXPECT_TRUE(m.variant->chunks.empty());
    }
  }
}

TEST(SelectVariant, TakesTheHighestCoveredBandwidthWithABandUpToTheNext) {
  const std::vector<uint64_t> three = {1000000, 500000, 2000000};
  run(three, {{1000, 0, -1, true, 0, 1000000, 2400000}});  // 976 <= 1000 < 1953
  run(three, {{0, 0, -1, true, 1, 0, 1200000}});           // covers none: the lowest
  run(three, {{5000, 0, -1, true, 2, 2000000, kAllOnes}});
  run({700000, 700000, 100000},
      {{0, 0, -1, true, 2, 0, 840000}, {900, 0, -1, true, 0, 700000, kAllOnes}});
  run({500, 500}, {{9, 0, -1, true, 0, 0, kAllOnes}});                    // equal: the earlier one
  run({18446744073709551615ull, 0}, {{0, 0, -1, true, 1, 0, kAllOnes}});  // 1.2 x saturates
}

TEST(SelectVariant, KeepsTheVariantInsideItsBandAndSwitchesAtItsEdges) {
  run({500000, 1000000, 2000000},
      {
          {1000, 0, -1, true, 1, 1000000, 2400000},
          {976, 0, -1, true, 1, 1000000, 2400000, true},   // the lower edge is inside
          {2342, 0, -1, true, 1, 1000000, 2400000, true},  // 2400000 >> 10 = 2343 is outside
          {2343, 0, -1, true, 2, 2000000, kAllOnes},
          {1953, 0, -1, true, 2, 2000000, kAllOnes, true},
          {1952, 600000, -1, true, 2, 2000000, kAllOnes, true},  // slow, the buffer 60 % full
          {1952, 599999, -1, true, 1, 1000000, 2400000},
          {1000, 0, 1, true, 0, 0, 2400000},  // its variant invalid: reselect inside the band
          {0, 0, 0, true, 2, 0, kAllOnes},    // the only one left is the lowest too
          {0, 0, 2, false, -1, 0, kAllOnes},  // nothing valid is left
      });
}

}  // namespace
}  // namespace skerir
