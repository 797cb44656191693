// Fuzzes the master playlist parser and the variant choice made over what it parsed.
//
// Input: a header of four 64-bit words (the average speed of the first and of the second
// choice in kbit/s, the buffer's size and its limit in bytes) and one byte whose bits mark the
// first eight variants invalid before the second choice; then the playlist text.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "buffer/cbuffer.h"
#include "fuzz_check.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"
#include "util/strings.h"

namespace {

using skerir::MasterPlaylist;
using skerir::PlaylistVariantDef;

constexpr size_t kHeader = 4 * sizeof(uint64_t) + 1;
constexpr uint64_t kAll = ~uint64_t{0};

bool starts_with(const std::string& line, const char* tag) { return line.rfind(tag, 0) == 0; }

uint64_t word(const uint8_t* data, int i) {
  uint64_t v;
  std::memcpy(&v, data + i * sizeof(v), sizeof(v));
  return v;
}

void check_parse(MasterPlaylist& master, std::string text, bool ok) {
  const std::vector<std::string> lines = skerir::split(text, '\n');
  std::string first = lines.empty() ? "" : lines[0];
  if (skerir::trim(first) != "#EXTM3U") {
    FUZZ_CHECK(!ok && master.variants.empty());
    return;
  }
  // Every line that is not a stream-info tag is a variant with the bandwidth of the last tag
  // before it; a tag without BANDWIDTH ends the parse as a failure.
  size_t next = 0;
  bool tag_seen = false;
  bool tag_since_variant = true;
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    if (starts_with(line, "#EXT-X-STREAM-INF:")) {
      if (line.find("BANDWIDTH=") == std::string::npos) {
        FUZZ_CHECK(!ok && next == master.variants.size());
        return;
      }
      tag_seen = tag_since_variant = true;
      continue;
    }
    FUZZ_CHECK(next < master.variants.size());
    const PlaylistVariantDef& v = master.variants[next];
    std::string trimmed = line;
    FUZZ_CHECK(v.url == skerir::trim(trimmed) && !v.invalid);
    if (!tag_seen) FUZZ_CHECK(v.bandwidth == 0);
    if (!tag_since_variant) FUZZ_CHECK(v.bandwidth == master.variants[next - 1].bandwidth);
    tag_since_variant = false;
    ++next;
  }
  FUZZ_CHECK(ok && next == master.variants.size());
}

// The variant a fresh choice must make at `avg` kbit/s: the highest valid bandwidth the speed
// covers (the lowest valid one when it covers none), the earliest among equals.
const PlaylistVariantDef* expected_choice(const MasterPlaylist& master, uint64_t avg) {
  const PlaylistVariantDef* best = nullptr;
  for (const PlaylistVariantDef& v : master.variants) {
    if (!v.invalid && (best == nullptr || v.bandwidth < best->bandwidth)) best = &v;
  }
  for (const PlaylistVariantDef& v : master.variants) {
    if (!v.invalid && v.bandwidth > best->bandwidth && (v.bandwidth >> 10) <= avg) best = &v;
  }
  return best;
}

// What must hold after a choice that made a new selection.
void check_new_choice(const MasterPlaylist& master, uint64_t avg) {
  const PlaylistVariantDef* best = expected_choice(master, avg);
  FUZZ_CHECK(master.selected == best);
  FUZZ_CHECK(master.variant != nullptr && master.variant->url == best->url);
  FUZZ_CHECK(master.variant->chunks.empty());
  uint64_t lowest = kAll;
  uint64_t highest = 0;
  uint64_t higher = kAll;  // the lowest valid bandwidth above best
  for (const PlaylistVariantDef& v : master.variants) {
    if (v.invalid) continue;
    lowest = std::min(lowest, v.bandwidth);
    highest = std::max(highest, v.bandwidth);
    if (v.bandwidth > best->bandwidth) higher = std::min(higher, v.bandwidth);
  }
  FUZZ_CHECK(master.boundary_low == (best->bandwidth == lowest ? 0 : best->bandwidth));
  if (best->bandwidth == highest) {
    FUZZ_CHECK(master.boundary_high == kAll);
  } else {
    // 1.2 times the next higher bandwidth, saturated: never below it.
    FUZZ_CHECK(master.boundary_high >= higher);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kHeader) return 0;
  const uint64_t first_avg = word(data, 0);
  const uint64_t second_avg = word(data, 1);
  const uint64_t fill = word(data, 2);
  const uint64_t limit = word(data, 3);
  const uint8_t invalid_mask = data[4 * sizeof(uint64_t)];
  std::string text(reinterpret_cast<const char*>(data) + kHeader, size - kHeader);

  skerir::Stats stats;
  skerir::CBuffer buffer;
  MasterPlaylist master("http://127.0.0.1/master.m3u8", &buffer, limit, &stats, 0);
  master.variants.push_back(PlaylistVariantDef{1, "stale", false});
  const bool ok = master.parse_playlist(&text);
  check_parse(master, text, ok);

  // The first choice of a stream: nothing selected, no band.
  stats.avg_speed = first_avg;
  const bool chosen = master.select_variant();
  FUZZ_CHECK(chosen == !master.variants.empty());
  if (!chosen) {
    FUZZ_CHECK(master.selected == nullptr && master.variant == nullptr);
    return 0;
  }
  check_new_choice(master, first_avg);

  // A later choice: some variants failed, the speed moved, the buffer holds `fill` bytes.
  for (size_t i = 0; i < master.variants.size() && i < 8; ++i) {
    master.variants[i].invalid = (invalid_mask >> i) & 1;
  }
  buffer.size = fill;
  stats.avg_speed = second_avg;
  const PlaylistVariantDef* before = master.selected;
  const uint64_t low = master.boundary_low >> 10;
  const uint64_t high = master.boundary_high >> 10;
  const bool again = master.select_variant();
  const bool any_valid = expected_choice(master, 0) != nullptr;
  if (second_avg < low && static_cast<double>(static_cast<float>(fill)) >=
                              static_cast<double>(static_cast<float>(limit)) * 0.6) {
    // Slow, but the buffer rides it out: kept, even a variant that failed meanwhile.
    FUZZ_CHECK(again && master.selected == before);
  } else if (second_avg >= low && second_avg < high && !before->invalid) {
    FUZZ_CHECK(again && master.selected == before);
  } else if (!any_valid) {
    FUZZ_CHECK(!again && master.selected == nullptr && master.variant == nullptr);
  } else {
    FUZZ_CHECK(again);
    check_new_choice(master, second_avg);
  }
  return 0;
}
