// The byte pipe of one stream: a singly linked chain of 512 KiB blocks between one writer
// thread (the fill thread, appending downloaded segment bytes) and one reader thread (the
// client connection, draining them to its socket).
//
// The writer fills `last` and appends a block when it is full; the reader consumes `first` and
// releases it once consumed to its capacity. Only linking a block in (`new_block`) and
// unlinking one (`free_block`) take `mutex`, so each side takes it once per block, never per
// write or read. Everything else rests on the single-producer/single-consumer split:
//   - the writer alone advances `write_pos` and lowers `capacity` of the block it fills;
//   - the reader alone advances `read_pos` of the block it consumes;
//   - `size` is the one counter both sides change (the writer adds, the reader subtracts).
// Fields the other side reads (`first`, `last`, `next`, `write_pos`, `capacity`, `size`) are
// atomic; `read_pos` is the reader's own.
//
// The buffer sets no limit on its size; the filler compares `size` with its own limit. A failed
// block allocation logs "CBUFF: Unable to allocate mem for cblock data" and throws
// std::bad_alloc from the writer call with the chain consistent (bytes already placed stay
// readable), so only that stream ends.
//
// Writer calls: write, write_get_available, write_get_available_newblock,
// write_notify_written, write_pause, wait_for_room, new_block. Reader calls: read_get_available,
// read_notify_read, read, free_block, wait_for_data*. Any thread: wake_reader. clean() and
// destruction need both sides to have stopped.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace skerir {

// Storage of one block.
inline constexpr uint64_t kCBlockSize = 524288;  // 512 KiB

// One link of the chain. Record and data come from aligned_malloc through the BlockPool, which
// CBuffer::new_block takes them from and CBuffer::free_block gives them back to; never copied.
// Invariants: read_pos <= write_pos <= capacity; every block but `last` is complete
// (write_pos == capacity).
struct CBlock {
  char* data;                       // kCBlockSize bytes, 16-byte aligned
  std::atomic<CBlock*> next;        // next newer block; null for `last`; set under the mutex
  std::atomic<uint64_t> write_pos;  // bytes written; advanced by the writer only
  uint64_t read_pos;                // bytes consumed; touched by the reader only
  std::atomic<uint64_t> capacity;   // usable length; lowered by the writer to abandon the tail
};

class CBuffer {
 public:
  CBuffer();
  // Releases whatever blocks remain (the owner normally calls clean() first; calling both is
  // harmless).
  ~CBuffer();
  CBuffer(const CBuffer&) = delete;
  CBuffer& operator=(const CBuffer&) = delete;

  // Writer. Appends an empty block at `last` (a kept one from the process's BlockPool when
  // there is one) and returns it. Throws std::bad_alloc (after logging) when the record or its
  // data cannot be allocated; the chain is then unchanged.
  CBlock* new_block();

  // Writer. Copies `n` bytes in, appending blocks as needed; returns `n`. A write of 0 bytes
  // still creates the first block of an empty chain. A write that ends exactly at a block's end
  // leaves that block full as `last`; the next write appends before writing.
  uint64_t write(const char* src, unsigned long n);

  // Writer. Stores through `out` where the next bytes go in `last` and returns how many
  // contiguous bytes fit there; never 0 (a full or missing block is replaced first).
  uint64_t write_get_available(char** out);

  // Writer. Like write_get_available, but first gives up the unwritten tail of `last` (its
  // capacity drops to what was written) and starts a fresh block: returns kCBlockSize.
  uint64_t write_get_available_newblock(char** out);

  // Writer. Commits `n` bytes written at the pointer last handed out. REQUIRES: `n` is at most
  // the last write_get_available* result less what was committed since (more is cut to that).
  // Filling the block appends the next one at once.
  void write_notify_written(unsigned long n);

  // Writer, before it pauses (a fill pass ends). Gives up the unwritten tail of `last`, as
  // write_get_available_newblock does but without starting a block, and wakes the reader: once
  // the reader has read the block it releases it, so an idle stream holds no block. The next
  // write starts a new one.
  void write_pause();

  // Reader. Stores through `out` the start of the contiguous readable bytes of `first` and
  // returns their count. On an empty buffer waits once, at most 100 ms (as wait_for_data does),
  // and returns 0 without storing through `out` if it is still empty.
  uint64_t read_get_available(char** out);

  // Reader. Consumes `n` of the bytes read_get_available offered; releases `first` when
  // consumption reaches its capacity.
  void read_notify_read(unsigned long n);

  // Reader. Copies up to `n` bytes out across blocks; returns the count. Waits as
  // read_get_available does only when the buffer is empty at the call.
  uint64_t read(char* dst, unsigned long n);

  // Reader. Unlinks and frees `first` (no-op on an empty chain). REQUIRES: the writer is not
  // filling that block at the same time (it is complete, or the writer is idle).
  void free_block();

  // Frees every block. Leaves `size` as it was: this is teardown, not a reset, and the buffer
  // must not be read after it. Neither side may be running.
  void clean();

  // Reader. Waits until the buffer holds bytes, wake_reader() is called or `limit` has passed
  // (on the steady clock; `deadline` on the calendar clock); true when it holds bytes. An idle
  // reader sleeps here until there is something to do instead of looking again and again.
  // Before it sleeps it releases `first` if that has been read to its capacity (a block the
  // writer gave up at a pause).
  bool wait_for_data(std::chrono::nanoseconds limit);
  bool wait_for_data_until(std::chrono::system_clock::time_point deadline);

  // Any thread. Ends the reader's current wait, or its next one when it is not waiting: for
  // whoever changes what the reader waits for besides bytes (its stream ending, a stop).
  void wake_reader();

  // Writer. Waits while the buffer holds more than `limit` bytes, until the reader has taken
  // enough or `*stop` is set (looked at every 100 ms); returns how long it waited. The
  // writer's back-pressure inside one download, whatever length the upstream announces.
  std::chrono::nanoseconds wait_for_room(uint64_t limit, const std::atomic<bool>* stop);

  // True while a reader sits in the empty-buffer wait. For tests and diagnostics.
  bool reader_waiting() const { return reader_.waiting.load(std::memory_order_seq_cst); }

  std::atomic<CBlock*> first{nullptr};  // oldest block, the read end; null when empty
  std::atomic<CBlock*> last{nullptr};   // newest block, the write end; null when empty
  std::mutex mutex;                     // held only while a block is linked in or unlinked
  // Bytes written and not yet consumed. The writer advances a block's write_pos before it adds
  // to `size` (release), so a reader that sees `size` > 0 (acquire) finds the bytes and the
  // block links in place. Anyone may read it (relaxed is enough for a mere figure).
  std::atomic<uint64_t> size{0};

 private:
  // The block the writer fills next, appending one when there is none with room.
  CBlock* writable_block();
  // Adds `n` freshly placed bytes to `size` and wakes a waiting reader.
  void publish(uint64_t n);
  // Lowers the capacity of the block being filled to what it holds and forgets it.
  void give_up_tail();

  // The writer's own view of the block it fills: `last` while that block has room, null when
  // there is none or it is full. The reader may release a full `last` at any moment, so the
  // writer never touches a block through this once it filled it. Writer only.
  CBlock* writable_ = nullptr;

  // One side's sleep until the other side makes progress. The sleeper raises `waiting` and then
  // tests its condition under `mutex`; the other side, after changing what the condition reads,
  // takes `mutex` to notify only when it sees `waiting` raised, so progress that wakes no one
  // costs one atomic load. `woken` (under `mutex`) ends the current or the next sleep.
  struct Sleeper {
    std::atomic<bool> waiting{false};
    bool woken = false;
    std::mutex mutex;
    std::condition_variable cv;
  };
  template <class TimePoint>
  bool wait_for_data_until_time(const TimePoint& deadline);

  // The reader's empty-buffer sleep: woken by publish() and by wake_reader().
  Sleeper reader_;
  // The writer's full-buffer sleep: woken by read_notify_read().
  Sleeper writer_;
};

}  // namespace skerir
