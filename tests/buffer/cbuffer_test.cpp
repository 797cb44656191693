#include "buffer/cbuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "buffer/aligned_alloc.h"
#include "support/log_capture.h"

namespace skerir {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::LogCapture;

constexpr uint64_t kBlock = kCBlockSize;

// Deterministic, position-dependent bytes: a byte lost, repeated or moved shows up as a
// mismatch. The period is prime so it never lines up with block or piece boundaries.
constexpr size_t kPatternPeriod = 1000003;
constexpr size_t kMaxPiece = 300000;

const std::vector<char>& pattern_table() {
  static const std::vector<char> table = [] {
    std::vector<char> t(kPatternPeriod + kMaxPiece);
    for (size_t i = 0; i < t.size(); ++i) {
      const uint64_t k = (i % kPatternPeriod) * 0x9E3779B97F4A7C15ull;
      t[i] = static_cast<char>(k >> 56);
    }
    return t;
  }();
  return table;
}

// The `n` <= kMaxPiece pattern bytes that start at stream offset `offset`.
const char* pattern_at(uint64_t offset) { return pattern_table().data() + offset % kPatternPeriod; }

// The pattern bytes of stream offsets [offset, offset + n), any length.
std::string pattern_string(uint64_t offset, uint64_t n) {
  std::string s;
  for (uint64_t done = 0; done < n;) {
    const uint64_t piece = std::min<uint64_t>(kMaxPiece, n - done);
    s.append(pattern_at(offset + done), piece);
    done += piece;
  }
  return s;
}

void write_pattern(CBuffer& buf, uint64_t offset, uint64_t n) {
  for (uint64_t done = 0; done < n;) {
    const uint64_t piece = std::min<uint64_t>(kMaxPiece, n - done);
    buf.write(pattern_at(offset + done), piece);
    done += piece;
  }
}

// write_pos of every block from `first` to `last`.
std::vector<uint64_t> chain_fill(const CBuffer& buf) {
  std::vector<uint64_t> out;
  for (CBlock* b = buf.first.load(); b != nullptr; b = b->next.load()) {
    out.push_back(b->write_pos.load());
  }
  return out;
}

TEST(AlignedAlloc, ReturnsSixteenByteAlignedWritableStorage) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{15}, size_t{16}, size_t{17}, sizeof(CBlock),
                      size_t{4096}, size_t{kBlock}}) {
    void* p = aligned_malloc(size);
    ASSERT_NE(p, nullptr) << size;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << size;
    std::memset(p, 0xA5, size);  // the sanitizers check the whole range is ours
    aligned_free(p);
  }
  EXPECT_EQ(aligned_malloc(SIZE_MAX), nullptr);
  EXPECT_EQ(aligned_malloc(SIZE_MAX - 22), nullptr);
}

TEST(CBufferWrite, AppendsBlocksOnlyWhenTheLastIsFull) {
  const struct {
    const char* name;
    std::vector<uint64_t> writes;
    std::vector<uint64_t> fill;  // write_pos per block afterwards
  } cases[] = {
      {"zero bytes on a fresh buffer create the first, empty block", {0}, {0}},
      {"a second zero-byte write adds nothing", {0, 0}, {0}},
      {"small writes share a block", {10, 20}, {30}},
      {"exactly one block leaves last full", {kBlock}, {kBlock}},
      {"zero bytes after a full block add nothing", {kBlock, 0}, {kBlock}},
      {"the next byte after a full block goes to a new one", {kBlock, 1}, {kBlock, 1}},
      {"a write straddles two blocks", {kBlock - 5, 10}, {kBlock, 5}},
      {"one write spans three blocks", {2 * kBlock + 7}, {kBlock, kBlock, 7}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CBuffer buf;
    uint64_t offset = 0;
    for (uint64_t n : c.writes) {
      const std::string bytes = pattern_string(offset, n);
      EXPECT_EQ(buf.write(bytes.data(), n), n);
      offset += n;
    }
    EXPECT_EQ(chain_fill(buf), c.fill);
    EXPECT_EQ(buf.size.load(), offset);
    EXPECT_EQ(buf.last.load()->next.load(), nullptr);
    uint64_t checked = 0;
    for (CBlock* b = buf.first.load(); b != nullptr; b = b->next.load()) {
      EXPECT_EQ(b->capacity.load(), kBlock);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(b->data) % 16, 0u);
      const uint64_t wp = b->write_pos.load();
      EXPECT_EQ(std::string(b->data, wp), pattern_string(checked, wp));
      checked += wp;
    }
  }
}

TEST(CBufferZeroCopyWrite, OffersTheFreeTailAndCommitsInPlace) {
  CBuffer buf;
  char* out = nullptr;
  ASSERT_EQ(buf.write_get_available(&out), kBlock);  // creates the first block
  CBlock* block = buf.first.load();
  EXPECT_EQ(out, block->data);

  std::memcpy(out, "abc", 3);
  buf.write_notify_written(3);
  EXPECT_EQ(buf.size.load(), 3u);
  ASSERT_EQ(buf.write_get_available(&out), kBlock - 3);
  EXPECT_EQ(out, block->data + 3);

  // A notify that fills the block appends the next one at once.
  buf.write_notify_written(kBlock - 3);
  EXPECT_EQ(chain_fill(buf), (std::vector<uint64_t>{kBlock, 0}));
  EXPECT_EQ(buf.size.load(), kBlock);
  ASSERT_EQ(buf.write_get_available(&out), kBlock);
  EXPECT_EQ(out, buf.last.load()->data);

  // After a plain write that ends on the block's end, the zero-copy writer gets a new block.
  CBuffer full;
  full.write(std::string(kBlock, 'x').data(), kBlock);
  ASSERT_EQ(full.write_get_available(&out), kBlock);
  EXPECT_EQ(chain_fill(full), (std::vector<uint64_t>{kBlock, 0}));
  EXPECT_EQ(out, full.last.load()->data);
}

TEST(CBufferZeroCopyWrite, NewBlockGivesUpTheTailWhichTheReaderThenSkips) {
  CBuffer buf;
  buf.write(pattern_at(0), 1000);
  CBlock* abandoned = buf.first.load();
  char* out = nullptr;
  ASSERT_EQ(buf.write_get_available_newblock(&out), kBlock);
  EXPECT_EQ(abandoned->capacity.load(), 1000u);
  EXPECT_EQ(out, buf.last.load()->data);
  std::memcpy(out, pattern_at(1000), 500);
  buf.write_notify_written(500);

  char* in = nullptr;
  ASSERT_EQ(buf.read_get_available(&in), 1000u);
  EXPECT_EQ(std::string(in, 1000), pattern_string(0, 1000));
  buf.read_notify_read(1000);  // reaches the lowered capacity: released
  EXPECT_NE(buf.first.load(), abandoned);
  EXPECT_EQ(buf.first.load(), buf.last.load());
  ASSERT_EQ(buf.read_get_available(&in), 500u);
  EXPECT_EQ(std::string(in, 500), pattern_string(1000, 500));
  buf.read_notify_read(500);
  EXPECT_EQ(buf.size.load(), 0u);
}

TEST(CBufferZeroCopyWrite, ABlockGivenUpAfterTheReaderReachedItsEndIsSkippedOnTheNextRead) {
  CBuffer buf;
  buf.write(pattern_at(0), 1000);
  char* in = nullptr;
  ASSERT_EQ(buf.read_get_available(&in), 1000u);
  buf.read_notify_read(1000);  // capacity still a whole block: kept
  CBlock* drained = buf.first.load();
  ASSERT_NE(drained, nullptr);

  char* out = nullptr;
  buf.write_get_available_newblock(&out);
  std::memcpy(out, pattern_at(1000), 10);
  buf.write_notify_written(10);
  ASSERT_EQ(buf.read_get_available(&in), 10u);
  EXPECT_EQ(std::string(in, 10), pattern_string(1000, 10));
  EXPECT_EQ(chain_fill(buf), (std::vector<uint64_t>{10}));

  // Two give-ups in a row leave an empty, zero-capacity block: one call skips one block.
  buf.read_notify_read(10);
  buf.write_get_available_newblock(&out);
  buf.write_get_available_newblock(&out);
  std::memcpy(out, pattern_at(1010), 7);
  buf.write_notify_written(7);
  ASSERT_EQ(chain_fill(buf).size(), 3u);
  uint64_t got = 0;
  for (int call = 0; call < 3 && got == 0; ++call) got = buf.read_get_available(&in);
  ASSERT_EQ(got, 7u);
  EXPECT_EQ(std::string(in, 7), pattern_string(1010, 7));
}

TEST(CBufferRead, EmptyBufferWaitsAboutOneHundredMillisecondsAndStoresNothing) {
  CBuffer buf;
  char sentinel = 0;
  char* out = &sentinel;
  auto start = steady_clock::now();
  EXPECT_EQ(buf.read_get_available(&out), 0u);
  auto waited = steady_clock::now() - start;
  EXPECT_EQ(out, &sentinel);
  EXPECT_GE(waited, milliseconds(100));
  EXPECT_LT(waited, milliseconds(2000));

  // Same for the copying read, also once the chain has a block but no unread byte.
  buf.write("", 0);
  char dst[4] = {'k', 'k', 'k', 'k'};
  start = steady_clock::now();
  EXPECT_EQ(buf.read(dst, sizeof dst), 0u);
  waited = steady_clock::now() - start;
  EXPECT_EQ(std::string(dst, 4), "kkkk");
  EXPECT_GE(waited, milliseconds(100));
  EXPECT_LT(waited, milliseconds(2000));
  EXPECT_FALSE(buf.reader_waiting());
}

TEST(CBufferRead, AWaitingReaderWakesWhenTheWriterAddsData) {
  // A reader that is not woken returns at its 100 ms deadline, however early the byte came, so
  // returning before it proves the wake-up. A round where this thread was too slow to write
  // within the window is retried.
  CBuffer buf;
  int woken = 0;
  for (int attempt = 0; attempt < 50 && woken < 3; ++attempt) {
    uint64_t got = 0;
    steady_clock::time_point called, returned;
    std::thread reader([&] {
      char* p = nullptr;
      called = steady_clock::now();
      got = buf.read_get_available(&p);
      returned = steady_clock::now();
      if (got != 0) buf.read_notify_read(got);
    });
    const auto give_up = steady_clock::now() + milliseconds(5000);
    while (!buf.reader_waiting() && steady_clock::now() < give_up) std::this_thread::yield();
    buf.write("x", 1);
    reader.join();
    if (got == 0) {
      char* p = nullptr;  // the reader timed out before the byte came: drain it and retry
      buf.read_notify_read(buf.read_get_available(&p));
      continue;
    }
    ASSERT_EQ(got, 1u);
    ASSERT_EQ(buf.size.load(), 0u);
    if (returned - called < milliseconds(100)) ++woken;
  }
  EXPECT_EQ(woken, 3);
}

TEST(CBufferRead, ReleasingTheOnlyBlockEmptiesTheChainAndTheNextWriteStartsANewOne) {
  CBuffer buf;
  write_pattern(buf, 0, kBlock);
  char* in = nullptr;
  ASSERT_EQ(buf.read_get_available(&in), kBlock);
  EXPECT_EQ(std::string(in, kBlock), pattern_string(0, kBlock));
  buf.read_notify_read(kBlock);
  EXPECT_EQ(buf.first.load(), nullptr);
  EXPECT_EQ(buf.last.load(), nullptr);
  EXPECT_EQ(buf.size.load(), 0u);

  buf.write(pattern_at(kBlock), 5);
  ASSERT_NE(buf.first.load(), nullptr);
  EXPECT_EQ(buf.first.load(), buf.last.load());
  ASSERT_EQ(buf.read_get_available(&in), 5u);
  EXPECT_EQ(std::string(in, 5), pattern_string(kBlock, 5));

  // The same through the zero-copy writer, and through an explicit free_block of a block the
  // writer had not filled.
  buf.read_notify_read(5);
  buf.free_block();
  EXPECT_EQ(buf.last.load(), nullptr);
  char* out = nullptr;
  ASSERT_EQ(buf.write_get_available(&out), kBlock);
  std::memcpy(out, "zz", 2);
  buf.write_notify_written(2);
  ASSERT_EQ(buf.read_get_available(&in), 2u);
  EXPECT_EQ(std::string(in, 2), "zz");
}

TEST(CBufferRead, CopyingReadCrossesBlocksAndStopsAtWhatIsThere) {
  const struct {
    const char* name;
    uint64_t written;
    std::vector<uint64_t> reads;    // n of each read call
    std::vector<uint64_t> results;  // what each returns
    std::vector<uint64_t> fill_after;
  } cases[] = {
      {"less than one block", 1000, {300, 300}, {300, 300}, {1000}},
      {"across a block boundary", kBlock + 1000, {kBlock + 500}, {kBlock + 500}, {1000}},
      {"more asked than held", kBlock + 1000, {kBlock + 500, 10000}, {kBlock + 500, 500}, {1000}},
      {"exactly the whole chain", 2 * kBlock, {2 * kBlock}, {2 * kBlock}, {}},
      {"zero bytes asked", 10, {0, 10}, {0, 10}, {10}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CBuffer buf;
    write_pattern(buf, 0, c.written);
    uint64_t offset = 0;
    for (size_t i = 0; i < c.reads.size(); ++i) {
      std::string dst(c.reads[i], '\0');
      ASSERT_EQ(buf.read(dst.data(), c.reads[i]), c.results[i]) << "read #" << i;
      EXPECT_EQ(dst.substr(0, c.results[i]), pattern_string(offset, c.results[i]));
      offset += c.results[i];
    }
    EXPECT_EQ(buf.size.load(), c.written - offset);
    EXPECT_EQ(chain_fill(buf), c.fill_after);
  }
}

TEST(CBufferClean, FreesEveryBlockAndKeepsSize) {
  CBuffer buf;
  buf.write(std::string(3 * kBlock, 'c').data(), 3 * kBlock);
  char* in = nullptr;
  buf.read_notify_read(buf.read_get_available(&in) / 2);
  const uint64_t size = buf.size.load();
  buf.clean();
  EXPECT_EQ(buf.first.load(), nullptr);
  EXPECT_EQ(buf.last.load(), nullptr);
  EXPECT_EQ(buf.size.load(), size);
  buf.clean();  // and again, as the destructor will: harmless
  EXPECT_EQ(buf.first.load(), nullptr);
  // A reader that comes anyway gets nothing rather than a freed block.
  EXPECT_EQ(buf.read_get_available(&in), 0u);
  EXPECT_EQ(buf.read(in, 1), 0u);
}

bool fail_block_data(size_t size) { return size == kCBlockSize; }
bool fail_block_record(size_t size) { return size == sizeof(CBlock); }

TEST(CBufferAllocationFailure, ThrowsAndLeavesTheChainAsItWas) {
  LogCapture::instance().clear();
  for (auto fault : {&fail_block_data, &fail_block_record}) {
    CBuffer buf;
    write_pattern(buf, 0, kBlock);  // last is full: the next write needs a block
    CBlock* only = buf.first.load();
    testing::set_aligned_malloc_fault(fault);
    EXPECT_THROW(buf.write(pattern_at(kBlock), 10), std::bad_alloc);
    char* out = nullptr;
    EXPECT_THROW(buf.write_get_available(&out), std::bad_alloc);
    EXPECT_THROW(buf.write_get_available_newblock(&out), std::bad_alloc);
    testing::set_aligned_malloc_fault(nullptr);

    EXPECT_EQ(buf.first.load(), only);
    EXPECT_EQ(buf.last.load(), only);
    EXPECT_EQ(only->next.load(), nullptr);
    EXPECT_EQ(buf.size.load(), kBlock);
    // The stream's bytes are all still readable, and writing works again.
    char* in = nullptr;
    ASSERT_EQ(buf.read_get_available(&in), kBlock);
    EXPECT_EQ(std::string(in, kBlock), pattern_string(0, kBlock));
    buf.read_notify_read(kBlock);
    EXPECT_EQ(buf.write(pattern_at(kBlock), 10), 10u);
    EXPECT_EQ(chain_fill(buf), (std::vector<uint64_t>{10}));
  }
  EXPECT_EQ(LogCapture::instance().count("CBUFF: Unable to allocate mem for cblock data"), 6u);
  EXPECT_EQ(LogCapture::instance().lines(LogStream::err).size(), 6u);

  // A give-up whose new block fails keeps the given-up block complete and readable.
  CBuffer buf;
  buf.write(pattern_at(0), 100);
  char* out = nullptr;
  testing::set_aligned_malloc_fault(&fail_block_data);
  EXPECT_THROW(buf.write_get_available_newblock(&out), std::bad_alloc);
  testing::set_aligned_malloc_fault(nullptr);
  char* in = nullptr;
  ASSERT_EQ(buf.read_get_available(&in), 100u);
  buf.read_notify_read(100);
  EXPECT_EQ(buf.first.load(), nullptr);
}

// One writer and one reader move at least 1 GiB through one buffer in random-sized pieces,
// the writer mixing all three ways of writing and the reader both ways of reading, and every
// byte is checked against the pattern.
TEST(CBufferConcurrency, WriterAndReaderThreadsMoveOneGibibyteIntact) {
  constexpr uint64_t kTotal = uint64_t{1} << 30;
  // The writer holds off beyond this, as the real filler does at its limit.
  constexpr uint64_t kBackpressure = 8 * kBlock;

  CBuffer buf;
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> mismatch_at{UINT64_MAX};
  uint64_t written = 0;
  uint64_t read_total = 0;

  auto piece = [](std::mt19937_64& rng) -> uint64_t {
    switch (rng() % 4) {
      case 0:
        return rng() % 200;  // transport-stream sized
      case 1:
        return rng() % kMaxPiece;  // up to more than half a block
      default:
        return rng() % 131072;
    }
  };

  std::thread writer([&] {
    std::mt19937_64 rng(12345);
    while (written < kTotal && !stop.load()) {
      if (buf.size.load(std::memory_order_relaxed) > kBackpressure) {
        std::this_thread::yield();
        continue;
      }
      const uint64_t want = std::min(piece(rng), kTotal - written);
      const unsigned mode = rng() % 8;
      if (mode < 3) {
        buf.write(pattern_at(written), want);
        written += want;
      } else {
        char* out = nullptr;
        const uint64_t avail =
            mode == 7 ? buf.write_get_available_newblock(&out) : buf.write_get_available(&out);
        const uint64_t n = std::min(avail, want);
        std::memcpy(out, pattern_at(written), n);
        buf.write_notify_written(n);
        written += n;
      }
    }
  });

  std::atomic<bool> stalled{false};
  std::thread reader([&] {
    std::mt19937_64 rng(67890);
    std::vector<char> scratch(kMaxPiece);
    auto progressed = steady_clock::now();
    while (read_total < kTotal && !stop.load()) {
      // A buffer that stops handing out its bytes fails the test instead of hanging it.
      if (steady_clock::now() - progressed > std::chrono::seconds(20)) {
        stalled.store(true);
        stop.store(true);
        break;
      }
      const char* got = nullptr;
      uint64_t n = 0;
      if (rng() % 4 == 0) {
        n = buf.read(scratch.data(), std::min<uint64_t>(1 + piece(rng), kMaxPiece));
        got = scratch.data();
      } else {
        char* p = nullptr;
        const uint64_t avail = buf.read_get_available(&p);
        if (avail == 0) continue;
        n = std::min({avail, 1 + rng() % avail, uint64_t{kMaxPiece}});
        got = p;
      }
      if (n != 0 && std::memcmp(got, pattern_at(read_total), n) != 0) {
        mismatch_at.store(read_total);
        stop.store(true);
        break;
      }
      if (got != scratch.data()) buf.read_notify_read(n);
      read_total += n;
      if (n != 0) progressed = steady_clock::now();
    }
  });

  writer.join();
  reader.join();
  EXPECT_FALSE(stalled.load()) << "no byte for 20 s at stream offset " << read_total;
  EXPECT_EQ(mismatch_at.load(), UINT64_MAX) << "first bad piece at stream offset";
  EXPECT_EQ(written, kTotal);
  EXPECT_EQ(read_total, kTotal);
  EXPECT_EQ(buf.size.load(), 0u);
}

}  // namespace
}  // namespace skerir
