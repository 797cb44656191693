#include "buffer/cbuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "buffer/aligned_alloc.h"
#include "buffer/block_pool.h"
#include "support/presentation.h"
#include "support/test_server.h"

namespace skerir {
namespace {

using test::drain;
using test::pattern;
using namespace std::chrono_literals;
constexpr uint64_t kBlock = kCBlockSize;

std::vector<uint64_t> chain_fill(const CBuffer& buf) {
  std::vector<uint64_t> out;
  for (CBlock* b = buf.first.load(); b != nullptr; b = b->next.load()) out.push_back(b->write_pos);
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

// A wait far longer than the test ends as soon as the writer adds a byte.
TEST(CBuffer, ReaderWaitingForDataWakesWhenItArrives) {
  CBuffer buf;
  bool arrived = false;
  std::thread reader([&] { arrived = buf.wait_for_data(600s); });
  while (!buf.reader_waiting()) std::this_thread::yield();
  buf.write("x", 1);
  reader.join();
  EXPECT_TRUE(arrived);
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

}  // namespace
}  // namespace skerir
