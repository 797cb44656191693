#include "buffer/block_pool.h"

#include <algorithm>
#include <new>

#include "buffer/aligned_alloc.h"
#include "util/log.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace skerir {
namespace {

// Under AddressSanitizer a kept block's data is poisoned, so that a stale pointer into a
// released block is still reported although the memory was not freed.
void poison(CBlock* b) {
#if defined(__SANITIZE_ADDRESS__)
  ASAN_POISON_MEMORY_REGION(b->data, kCBlockSize);
#else
  (void)b;
#endif
}

void unpoison(CBlock* b) {
#if defined(__SANITIZE_ADDRESS__)
  ASAN_UNPOISON_MEMORY_REGION(b->data, kCBlockSize);
#else
  (void)b;
#endif
}

void destroy(CBlock* b) {
  unpoison(b);
  aligned_free(b->data);
  b->~CBlock();
  aligned_free(b);
}

void destroy_all(const std::vector<CBlock*>& blocks) {
  for (CBlock* b : blocks) destroy(b);
}

}  // namespace

BlockPool& BlockPool::process() {
  static BlockPool* const pool = [] {
    auto* p = new BlockPool();
    p->free_.reserve(kPoolMaxBlocks);  // keeping a block never allocates
    return p;
  }();
  return *pool;
}

CBlock* BlockPool::take() {
  const auto now = std::chrono::steady_clock::now();
  CBlock* b = nullptr;
  std::vector<CBlock*> released;
  {
    std::lock_guard lock(mutex_);
    if (now >= next_trim_) trim(now, &released);
    if (!free_.empty()) {
      b = free_.back();  // the most recently used: its pages are the likeliest to be cached
      free_.pop_back();
      low_water_ = std::min(low_water_, free_.size());
    }
  }
  destroy_all(released);
  if (b != nullptr) {
    unpoison(b);
    b->next.store(nullptr, std::memory_order_relaxed);
    b->write_pos.store(0, std::memory_order_relaxed);
    b->read_pos = 0;
    b->capacity.store(kCBlockSize, std::memory_order_relaxed);
    return b;
  }
  void* record = aligned_malloc(sizeof(CBlock));
  char* data = record != nullptr ? static_cast<char*>(aligned_malloc(kCBlockSize)) : nullptr;
  if (data == nullptr) {
    if (record != nullptr) aligned_free(record);
    log_err("CBUFF: Unable to allocate mem for cblock data");
    throw std::bad_alloc();
  }
  return new (record) CBlock{data, nullptr, 0, 0, kCBlockSize};
}

void BlockPool::give(CBlock* b) {
  const auto now = std::chrono::steady_clock::now();
  poison(b);  // before another thread can take it
  std::vector<CBlock*> released;
  {
    std::lock_guard lock(mutex_);
    if (now >= next_trim_) trim(now, &released);
    if (users_ != 0 && free_.size() < kPoolMaxBlocks) {
      free_.push_back(b);
      b = nullptr;
    }
  }
  destroy_all(released);
  if (b != nullptr) destroy(b);
}

void BlockPool::attach() {
  std::lock_guard lock(mutex_);
  ++users_;
}

void BlockPool::detach() {
  std::vector<CBlock*> released;
  {
    std::lock_guard lock(mutex_);
    if (--users_ == 0) {
      released.assign(free_.begin(), free_.end());
      free_.clear();
      low_water_ = 0;
    }
  }
  destroy_all(released);
}

size_t BlockPool::kept() const {
  std::lock_guard lock(mutex_);
  return free_.size();
}

void BlockPool::trim(std::chrono::steady_clock::time_point now, std::vector<CBlock*>* out) {
  // The oldest blocks sit at the front; low_water_ of them were never needed all interval.
  const auto idle = static_cast<std::ptrdiff_t>(std::min(low_water_, free_.size()));
  out->assign(free_.begin(), free_.begin() + idle);
  free_.erase(free_.begin(), free_.begin() + idle);
  low_water_ = free_.size();
  next_trim_ = now + kPoolTrimInterval;
}

}  // namespace skerir
