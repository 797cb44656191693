#include "buffer/cbuffer.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "buffer/block_pool.h"

namespace skerir {
namespace {

// How often a writer waiting for room looks at its stop flag.
constexpr std::chrono::milliseconds kRoomCheck{100};

// A reader of an empty buffer waits this long, once, before reporting 0.
constexpr std::chrono::milliseconds kEmptyReadWait{100};

}  // namespace

CBuffer::CBuffer() { BlockPool::process().attach(); }

CBuffer::~CBuffer() {
  clean();
  BlockPool::process().detach();
}

CBlock* CBuffer::new_block() {
  // Taking a block needs no lock of this buffer; only linking does.
  CBlock* b = BlockPool::process().take();
  {
    std::lock_guard lock(mutex);
    // The reader empties the chain (both ends null) under this mutex, so the two ends are
    // consistent here even when it just released the block that was `last`.
    if (first.load(std::memory_order_relaxed) == nullptr) {
      first.store(b, std::memory_order_release);
    }
    if (CBlock* l = last.load(std::memory_order_relaxed)) {
      l->next.store(b, std::memory_order_release);
    }
    last.store(b, std::memory_order_release);
  }
  writable_ = b;
  return b;
}

CBlock* CBuffer::writable_block() {
  // Only the writer makes `last` non-null, so a null `last` means the reader released the block
  // `writable_` still names (possible only through an explicit free_block of a partly written
  // only block): start a new chain instead of writing into freed memory.
  if (writable_ == nullptr || last.load(std::memory_order_acquire) == nullptr) new_block();
  return writable_;
}

void CBuffer::publish(uint64_t n) {
  if (n == 0) return;
  // seq_cst on both sides of the wake-up handshake: either this add is seen by the reader's
  // check of `size` inside its wait, or the reader's flag is seen here. It also releases the
  // bytes and block links placed before it (see `size`).
  size.fetch_add(n, std::memory_order_seq_cst);
  if (reader_.waiting.load(std::memory_order_seq_cst)) {
    // Passing through the mutex orders the notify after the reader has started to sleep (or
    // lets it see the new size first). Notifying after unlocking spares the woken reader a
    // second sleep on the mutex still held here.
    { std::lock_guard lock(reader_.mutex); }
    reader_.cv.notify_one();
  }
}

uint64_t CBuffer::write(const char* src, unsigned long n) {
  if (last.load(std::memory_order_acquire) == nullptr) new_block();
  uint64_t copied = 0;
  while (copied < n) {
    CBlock* b = writable_block();
    const uint64_t wp = b->write_pos.load(std::memory_order_relaxed);
    const uint64_t cap = b->capacity.load(std::memory_order_relaxed);
    const uint64_t count = std::min<uint64_t>(cap - wp, n - copied);
    std::memcpy(b->data + wp, src + copied, count);
    // write_pos before size: a reader that sees the bytes counted finds them in place.
    b->write_pos.store(wp + count, std::memory_order_release);
    // Once published, a full block may be released by the reader at any time: forget it first.
    if (wp + count == cap) writable_ = nullptr;
    publish(count);
    copied += count;
  }
  return copied;
}

uint64_t CBuffer::write_get_available(char** out) {
  CBlock* b = writable_block();
  const uint64_t wp = b->write_pos.load(std::memory_order_relaxed);
  *out = b->data + wp;
  return b->capacity.load(std::memory_order_relaxed) - wp;
}

uint64_t CBuffer::write_get_available_newblock(char** out) {
  give_up_tail();
  new_block();
  return write_get_available(out);
}

void CBuffer::give_up_tail() {
  if (writable_ != nullptr && last.load(std::memory_order_acquire) != nullptr) {
    // The block is complete as it stands and the reader frees it at its write position. The
    // writer must not touch it again.
    writable_->capacity.store(writable_->write_pos.load(std::memory_order_relaxed),
                              std::memory_order_release);
  }
  writable_ = nullptr;
}

void CBuffer::write_notify_written(unsigned long n) {
  CBlock* b = writable_;
  // Nothing handed out, nothing to commit, or the block was released under the writer (see
  // writable_block).
  if (b == nullptr || n == 0 || last.load(std::memory_order_acquire) == nullptr) return;
  const uint64_t wp = b->write_pos.load(std::memory_order_relaxed);
  const uint64_t cap = b->capacity.load(std::memory_order_relaxed);
  const uint64_t count = std::min<uint64_t>(n, cap - wp);
  b->write_pos.store(wp + count, std::memory_order_release);
  const bool full = wp + count == cap;
  if (full) writable_ = nullptr;
  publish(count);
  if (full) new_block();
}

void CBuffer::write_pause() {
  give_up_tail();
  wake_reader();  // to release the block, should it have read it all already
}

template <class TimePoint>
bool CBuffer::wait_for_data_until_time(const TimePoint& deadline) {
  if (size.load(std::memory_order_acquire) != 0) return true;
  // Read to its capacity: the writer gave it up and never touches it again (acquire pairs with
  // the release of the lowered capacity).
  if (CBlock* b = first.load(std::memory_order_acquire);
      b != nullptr && b->read_pos == b->capacity.load(std::memory_order_acquire)) {
    free_block();
  }
  std::unique_lock lock(reader_.mutex);
  reader_.waiting.store(true, std::memory_order_seq_cst);
  reader_.cv.wait_until(lock, deadline, [this] {
    return reader_.woken || size.load(std::memory_order_seq_cst) != 0;
  });
  reader_.woken = false;
  reader_.waiting.store(false, std::memory_order_relaxed);  // a stale true costs one lock
  return size.load(std::memory_order_acquire) != 0;
}

bool CBuffer::wait_for_data(std::chrono::nanoseconds limit) {
  return wait_for_data_until_time(std::chrono::steady_clock::now() + limit);
}

bool CBuffer::wait_for_data_until(std::chrono::system_clock::time_point deadline) {
  return wait_for_data_until_time(deadline);
}

std::chrono::nanoseconds CBuffer::wait_for_room(uint64_t limit, const std::atomic<bool>* stop) {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock lock(writer_.mutex);
  writer_.waiting.store(true, std::memory_order_seq_cst);
  while (size.load(std::memory_order_seq_cst) > limit && !(stop != nullptr && stop->load())) {
    writer_.cv.wait_for(lock, kRoomCheck);
  }
  writer_.waiting.store(false, std::memory_order_relaxed);  // a stale true costs one lock
  return std::chrono::steady_clock::now() - start;
}

void CBuffer::wake_reader() {
  {
    std::lock_guard lock(reader_.mutex);
    reader_.woken = true;
  }
  reader_.cv.notify_one();
}

uint64_t CBuffer::read_get_available(char** out) {
  if (size.load(std::memory_order_acquire) == 0 && !wait_for_data(kEmptyReadWait)) return 0;
  CBlock* b = first.load(std::memory_order_acquire);
  if (b == nullptr) return 0;  // only after clean()
  // A block the writer abandoned after the reader had reached its end is complete but was not
  // released by read_notify_read. Test `next` first: once it is set, the block's final
  // write_pos is visible, so no unread byte can be dropped.
  if (b->next.load(std::memory_order_acquire) != nullptr &&
      b->write_pos.load(std::memory_order_acquire) == b->read_pos) {
    free_block();
    b = first.load(std::memory_order_acquire);
    if (b == nullptr) return 0;
  }
  // A stale capacity is never below write_pos, so the smaller of the two bounds the bytes.
  const uint64_t end = std::min(b->write_pos.load(std::memory_order_acquire),
                                b->capacity.load(std::memory_order_acquire));
  *out = b->data + b->read_pos;
  return end - b->read_pos;
}

void CBuffer::read_notify_read(unsigned long n) {
  CBlock* b = first.load(std::memory_order_acquire);
  if (b == nullptr) return;
  // Relaxed: the reader hands nothing to the writer through `size`.
  size.fetch_sub(n, std::memory_order_seq_cst);  // seq_cst: the writer's room handshake
  if (writer_.waiting.load(std::memory_order_seq_cst)) {
    { std::lock_guard lock(writer_.mutex); }
    writer_.cv.notify_one();
  }
  b->read_pos += n;
  // The block's end is its capacity, not its write position: the writer may still be filling it.
  if (b->read_pos == b->capacity.load(std::memory_order_acquire)) free_block();
}

uint64_t CBuffer::read(char* dst, unsigned long n) {
  if (size.load(std::memory_order_acquire) == 0 && !wait_for_data(kEmptyReadWait)) return 0;
  uint64_t copied = 0;
  for (;;) {
    CBlock* b = first.load(std::memory_order_acquire);
    if (b == nullptr || copied >= n) break;
    const uint64_t wp = b->write_pos.load(std::memory_order_acquire);
    const uint64_t cap = b->capacity.load(std::memory_order_acquire);
    const uint64_t count = std::min(
        {static_cast<uint64_t>(n) - copied, cap - b->read_pos, std::min(wp, cap) - b->read_pos});
    std::memcpy(dst + copied, b->data + b->read_pos, count);
    size.fetch_sub(count, std::memory_order_relaxed);
    b->read_pos += count;
    if (b->read_pos == cap) free_block();
    copied += count;
    // A non-zero size seen here (acquire) makes the writer's later bytes and links visible to
    // the next round, so a round that copies nothing is followed by one that makes progress.
    if (size.load(std::memory_order_acquire) == 0) break;
  }
  return copied;
}

void CBuffer::free_block() {
  CBlock* b;
  {
    std::lock_guard lock(mutex);
    b = first.load(std::memory_order_relaxed);
    if (b == nullptr) return;
    CBlock* next = b->next.load(std::memory_order_relaxed);
    if (next == nullptr) {
      last.store(nullptr, std::memory_order_release);
      first.store(nullptr, std::memory_order_release);
    } else {
      first.store(next, std::memory_order_release);
    }
  }
  // Unlinked, so no one else can reach it: release it outside the lock.
  BlockPool::process().give(b);
}

void CBuffer::clean() {
  while (first.load(std::memory_order_acquire) != nullptr) free_block();
  writable_ = nullptr;
}

}  // namespace skerir
