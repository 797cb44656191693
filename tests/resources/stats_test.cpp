#include <gtest/gtest.h>

#include "resources/resource_stats.h"

namespace skerir {
namespace {

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
}  // namespace skerir
