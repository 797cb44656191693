#include "buffer/cbuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>

#include "buffer/aligned_alloc.h"
#include "buffer/block_pool.h"
#include "support/log_capture.h"

namespace skerir {
namespace {

using namespace std::chrono_literals;
constexpr uint64_t kBlock = kCBlockSize;

// Position-dependent bytes: a byte lost, repeated or moved shows up as a mismatch.
char at(uint64_t offset) { return static_cast<char>((offset * 0x9E3779B97F4A7C15ull) >> 56); }
std::string pattern(uint64_t offset, uint64_t n) {
  std::string s(n, '\0');
  for (uint64_t i = 0; i < n; ++i) s[i] = at(offset + i);
  return s;
}

std::vector<uint64_t> chain_fill(const CBuffer& buf) {
  std::vector<uint64_t> out;
  for (CBlock* b = buf.first.load(); b != nullptr; b = b->next.load()) out.push_back(b->write_pos);
  return out;
}

// Drains the buffer through the zero-copy reader.
std::string drain(CBuffer& buf) {
  std::string out;
  char* in = nullptr;
  while (uint64_t n = buf.read_get_available(&in)) {
    out.append(in, n);
    buf.read_notify_read(n);
  }
  return out;
}

TEST(CBuffer, WritesAppendBlocksOnlyWhenTheLastIsFull) {
  const struct {
    std::vector<uint64_t> writes, fill;
  } cases[] = {
      {{0}, {0}},  // a fresh buffer gets its first, empty block
      {{10, 20}, {30}},
      {{kBlock, 0}, {kBlock}},  // exactly one block leaves last full
      {{kBlock, 1}, {kBlock, 1}},
      {{2 * kBlock + 7}, {kBlock, kBlock, 7}},
  };
  for (const auto& c : cases) {
    CBuffer buf;
    uint64_t offset = 0;
    for (uint64_t n : c.writes) {
      EXPECT_EQ(buf.write(pattern(offset, n).data(), n), n);
      offset += n;
    }
    EXPECT_EQ(chain_fill(buf), c.fill);
    EXPECT_EQ(buf.size.load(), offset);
    EXPECT_EQ(drain(buf), pattern(0, offset));
  }
}

TEST(CBuffer, ZeroCopyWriterCommitsInPlaceAndGivesUpTails) {
  CBuffer buf;
  char* out = nullptr;
  ASSERT_EQ(buf.write_get_available(&out), kBlock);
  std::memcpy(out, pattern(0, 3).data(), 3);
  buf.write_notify_written(3);
  ASSERT_EQ(buf.write_get_available(&out), kBlock - 3);
  EXPECT_EQ(out, buf.first.load()->data + 3);
  std::memcpy(out, pattern(3, kBlock - 3).data(), kBlock - 3);
  buf.write_notify_written(kBlock - 3);  // filling the block appends the next one at once
  EXPECT_EQ(chain_fill(buf), (std::vector<uint64_t>{kBlock, 0}));

  buf.write(pattern(kBlock, 1000).data(), 1000);
  ASSERT_EQ(buf.write_get_available_newblock(&out), kBlock);  // gives up the tail of 1000
  std::memcpy(out, pattern(kBlock + 1000, 500).data(), 500);
  buf.write_notify_written(500);
  EXPECT_EQ(drain(buf), pattern(0, kBlock + 1500));
  EXPECT_EQ(buf.first.load(), buf.last.load());

  // A tail given up after the reader reached it is skipped by the next read; two in a row
  // leave an empty block that the read after that skips.
  buf.write_get_available_newblock(&out);
  buf.write_get_available_newblock(&out);
  buf.write("xyz", 3);
  EXPECT_EQ(chain_fill(buf).size(), 3u);
  std::string rest;
  for (int i = 0; i < 3 && rest.empty(); ++i) rest = drain(buf);
  EXPECT_EQ(rest, "xyz");

  // A pausing writer gives its block up too: a reader that has read it all releases it before
  // it sleeps, and the next write starts a new chain.
  buf.write_pause();
  EXPECT_FALSE(buf.wait_for_data(0ms));
  EXPECT_EQ(buf.first.load(), nullptr);
  buf.write("uv", 2);
  EXPECT_EQ(drain(buf), "uv");
}

TEST(CBuffer, EmptyReadWaitsOnceAndWakesWhenDataArrives) {
  CBuffer buf;
  char sentinel = 0;
  char* out = &sentinel;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(buf.read_get_available(&out), 0u);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
  EXPECT_EQ(out, &sentinel);

  // A wait far longer than the test ends as soon as the writer adds a byte.
  bool arrived = false;
  std::thread reader([&] { arrived = buf.wait_for_data(600s); });
  while (!buf.reader_waiting()) std::this_thread::yield();
  start = std::chrono::steady_clock::now();
  buf.write("x", 1);
  reader.join();
  EXPECT_TRUE(arrived);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 300s);
}

TEST(CBuffer, FailedAllocationThrowsAndKeepsTheChain) {
  test::LogCapture::instance().clear();
  CBuffer buf;
  buf.write(pattern(0, kBlock).data(), kBlock);  // last is full: the next write needs a block
  testing::set_aligned_malloc_fault([](size_t size) { return size == kCBlockSize; });
  char* out = nullptr;
  EXPECT_THROW(buf.write("x", 1), std::bad_alloc);
  EXPECT_THROW(buf.write_get_available_newblock(&out), std::bad_alloc);
  testing::set_aligned_malloc_fault(nullptr);
  EXPECT_EQ(test::LogCapture::instance().count("CBUFF: Unable to allocate mem for cblock data"),
            2u);
  EXPECT_EQ(drain(buf), pattern(0, kBlock));
  EXPECT_EQ(buf.write("x", 1), 1u);
}

TEST(CBuffer, ReleasedBlocksAreKeptBoundedUntilTheLastBufferGoes) {
  const BlockPool& pool = BlockPool::process();
  {
    CBuffer buf;
    const uint64_t n = (kPoolMaxBlocks + 2) * kBlock;
    buf.write(pattern(0, n).data(), n);
    EXPECT_EQ(drain(buf), pattern(0, n));
    EXPECT_GT(pool.kept(), 0u);
    EXPECT_LE(pool.kept(), kPoolMaxBlocks);
  }
  EXPECT_EQ(pool.kept(), 0u);
}

// One writer and one reader move 128 MiB, the writer mixing the three ways of writing in random
// pieces; every byte is checked.
TEST(CBuffer, WriterAndReaderThreadsMoveDataIntact) {
  constexpr uint64_t kTotal = 128ull << 20;
  CBuffer buf;
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    std::mt19937_64 rng(1);
    for (uint64_t done = 0; done < kTotal && !stop;) {
      while (buf.size.load() > 8 * kBlock && !stop) std::this_thread::yield();
      const uint64_t n = std::min<uint64_t>(rng() % 300000 + 1, kTotal - done);
      if (rng() % 3 == 0) {
        buf.write(pattern(done, n).data(), n);
        done += n;
        continue;
      }
      char* out = nullptr;
      const uint64_t room = std::min(
          n, rng() % 2 ? buf.write_get_available(&out) : buf.write_get_available_newblock(&out));
      for (uint64_t i = 0; i < room; ++i) out[i] = at(done + i);
      buf.write_notify_written(room);
      done += room;
    }
  });
  uint64_t got = 0;
  bool intact = true;
  while (got < kTotal && intact) {
    char* in = nullptr;
    const uint64_t n = buf.read_get_available(&in);
    for (uint64_t i = 0; i < n; ++i) intact &= in[i] == at(got + i);
    buf.read_notify_read(n);
    got += n;
  }
  stop = true;
  writer.join();
  EXPECT_TRUE(intact) << "mismatch before offset " << got;
  EXPECT_EQ(got, kTotal);
}

}  // namespace
}  // namespace skerir
