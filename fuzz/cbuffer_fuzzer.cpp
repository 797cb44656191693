// Fuzzes the stream buffer with scripted sequences of writer and reader calls, the copying and
// the zero-copy forms mixed, and checks the reader gets back exactly the bytes written, in
// order, across block boundaries and abandoned block tails.
//
// Input: four-byte operations, an operation code and a 24-bit length.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "buffer/cbuffer.h"
#include "fuzz_check.h"

namespace {

using skerir::CBuffer;
using skerir::kCBlockSize;

// Bytes written per input at most: enough to cross several blocks, little enough to stay fast.
constexpr uint64_t kMaxWritten = 4 * kCBlockSize;
// An empty abandoned block costs the reader one call that returns nothing.
constexpr int kMaxFruitlessReads = 64;

// The bytes of the stream repeat with a period that is no divisor of the block size, so a byte
// read from the wrong place (a block, a tail or an offset off) shows. Copied and compared a
// run at a time: byte-wise compares would each go through libFuzzer's comparison hooks.
constexpr uint64_t kPeriod = 1000003;

const std::vector<char>& pattern() {
  static const std::vector<char> bytes = [] {
    std::vector<char> b(kPeriod);
    uint32_t x = 2463534242u;
    for (char& c : b) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      c = static_cast<char>(x);
    }
    return b;
  }();
  return bytes;
}

void fill(char* dst, uint64_t from, uint64_t n) {
  while (n > 0) {
    const uint64_t at = from % kPeriod;
    const uint64_t run = std::min(n, kPeriod - at);
    std::memcpy(dst, pattern().data() + at, run);
    dst += run;
    from += run;
    n -= run;
  }
}

void check_bytes(const char* src, uint64_t from, uint64_t n) {
  while (n > 0) {
    const uint64_t at = from % kPeriod;
    const uint64_t run = std::min(n, kPeriod - at);
    FUZZ_CHECK(std::memcmp(src, pattern().data() + at, run) == 0);
    src += run;
    from += run;
    n -= run;
  }
}

// Source and destination of the copying calls, allocated once: fresh megabytes on every call
// would cost more page faults than the buffer itself.
std::vector<char>& scratch() {
  static std::vector<char> bytes(kMaxWritten);
  return bytes;
}

struct Script {
  CBuffer buffer;
  uint64_t written = 0;   // stream offset of the next byte to write
  uint64_t consumed = 0;  // stream offset of the next byte to read

  uint64_t held() const { return written - consumed; }

  void write(uint64_t n) {
    n = std::min(n, kMaxWritten - written);
    fill(scratch().data(), written, n);
    FUZZ_CHECK(buffer.write(scratch().data(), n) == n);
    written += n;
  }

  void write_in_place(uint64_t n, bool fresh_block) {
    char* at = nullptr;
    const uint64_t room =
        fresh_block ? buffer.write_get_available_newblock(&at) : buffer.write_get_available(&at);
    FUZZ_CHECK(room > 0 && room <= kCBlockSize && at != nullptr);
    if (fresh_block) FUZZ_CHECK(room == kCBlockSize);
    n = std::min({n, room, kMaxWritten - written});
    fill(at, written, n);
    buffer.write_notify_written(n);
    written += n;
  }

  // Returns the bytes consumed.
  uint64_t read_in_place(uint64_t n) {
    char* at = nullptr;
    const uint64_t avail = buffer.read_get_available(&at);
    FUZZ_CHECK(avail <= held());
    if (avail == 0) return 0;
    check_bytes(at, consumed, avail);
    n = std::min(n, avail);
    buffer.read_notify_read(n);
    consumed += n;
    return n;
  }

  void read_copy(uint64_t n) {
    n = std::min(n, held());
    const uint64_t got = buffer.read(scratch().data(), n);
    FUZZ_CHECK(got <= n);
    check_bytes(scratch().data(), consumed, got);
    consumed += got;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Script s;
  for (size_t i = 0; i + 4 <= size; i += 4) {
    const uint64_t n = data[i + 1] | (data[i + 2] << 8) | (uint64_t{data[i + 3]} << 16);
    switch (data[i] % 6) {
      case 0:
        s.write(n);
        break;
      case 1:
        s.write_in_place(n, false);
        break;
      case 2:
        s.write_in_place(n, true);
        break;
      // An empty buffer makes the reader wait 100 ms: read only when there is something.
      case 3:
        if (s.held() > 0) s.read_in_place(n);
        break;
      case 4:
        if (s.held() > 0) s.read_copy(n);
        break;
      case 5:
        s.write(0);
        break;
    }
    FUZZ_CHECK(s.buffer.size == s.held());
  }
  // Drained, the buffer gives back exactly what was written.
  int fruitless = 0;
  while (s.held() > 0) {
    if (s.read_in_place(kCBlockSize) == 0) FUZZ_CHECK(++fruitless <= kMaxFruitlessReads);
  }
  FUZZ_CHECK(s.buffer.size == 0 && s.consumed == s.written);
  s.buffer.clean();
  FUZZ_CHECK(s.buffer.first == nullptr && s.buffer.last == nullptr);
  return 0;
}
