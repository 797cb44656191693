// Free stream-buffer blocks kept for reuse by every stream of the process.
//
// A fresh block is a mapping of its own (see main's allocator settings), so each of its pages
// faults and is zeroed on first touch, and releasing it unmaps it again: at a few hundred MB/s
// that costs more than the bytes' own copies. Kept blocks skip all of it. The pool is bounded
// (kPoolMaxBlocks), and whatever was not taken during a whole trim interval is released, as is
// everything once the last buffer using the pool is gone, so memory still goes back to the
// system after a load peak.
//
// Threading: any thread may call anything; `mutex_` guards the table and is never held while a
// block is allocated, freed or touched.
#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <vector>

#include "buffer/cbuffer.h"

namespace skerir {

inline constexpr size_t kPoolMaxBlocks = 32;  // 16 MiB kept at most
inline constexpr std::chrono::milliseconds kPoolTrimInterval{1000};

class BlockPool {
 public:
  // The pool of the process; never destroyed.
  static BlockPool& process();

  // An empty block (positions 0, capacity kCBlockSize, no successor): a kept one, else a new
  // allocation. Throws std::bad_alloc, after logging "CBUFF: Unable to allocate mem for cblock
  // data", when there is none and allocation fails.
  CBlock* take();
  // Keeps `b` for a later take(), or frees it when the pool is full. Nobody may touch `b` after.
  void give(CBlock* b);

  // A buffer uses the pool from attach() to detach(); the last detach frees every kept block.
  void attach();
  void detach();

  size_t kept() const;

 private:
  BlockPool() = default;
  // Moves the blocks no take() needed since the last trim into `out` and starts a new interval.
  // REQUIRES: mutex_ held.
  void trim(std::chrono::steady_clock::time_point now, std::vector<CBlock*>* out);

  mutable std::mutex mutex_;
  std::vector<CBlock*> free_;  // guarded by mutex_; reserved to kPoolMaxBlocks
  size_t users_ = 0;           // guarded by mutex_
  size_t low_water_ = 0;       // guarded by mutex_: the fewest blocks kept since the last trim
  std::chrono::steady_clock::time_point next_trim_{};  // guarded by mutex_
};

}  // namespace skerir
