// Stream-buffer throughput: pieces written with `write` and drained through the zero-copy
// reader pair, beside a plain memcpy of the same bytes into a block-sized ring. The pieces are
// a transport-stream packet (188), a typical socket read (64 KiB) and the stream endpoint's send
// slice (131071). Goal: the 131071-byte case at half of memcpy's bandwidth or better.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "buffer/aligned_alloc.h"
#include "buffer/cbuffer.h"

namespace skerir {
namespace {

// Bytes moved per benchmark iteration, whatever the piece size: about two blocks.
constexpr uint64_t kBytesPerIteration = 2 * kCBlockSize;

uint64_t pieces_per_iteration(uint64_t piece) { return (kBytesPerIteration + piece - 1) / piece; }

void BM_CBufferWriteThenZeroCopyRead(benchmark::State& state) {
  const uint64_t piece = static_cast<uint64_t>(state.range(0));
  const uint64_t pieces = pieces_per_iteration(piece);
  std::vector<char> src(piece, 'x');
  CBuffer buf;
  uint64_t checksum = 0;
  for (auto _ : state) {
    for (uint64_t i = 0; i < pieces; ++i) {
      buf.write(src.data(), piece);
      // Drain what is there without ever entering the empty-buffer wait, as a reader that
      // keeps up does.
      while (buf.size.load(std::memory_order_relaxed) != 0) {
        char* p = nullptr;
        const uint64_t n = buf.read_get_available(&p);
        checksum += static_cast<unsigned char>(p[0]);
        buf.read_notify_read(n);
      }
    }
  }
  benchmark::DoNotOptimize(checksum);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pieces * piece));
}

// The same copies the buffer makes: into 16-byte aligned blocks of the same size, split at the
// block's end at the same offsets, so the two differ only by the buffer's own work. (Copy speed
// depends on the destination offset: on some CPUs a misaligned bulk copy is several times
// slower, so a baseline with other offsets would compare nothing.)
void BM_Memcpy(benchmark::State& state) {
  const uint64_t piece = static_cast<uint64_t>(state.range(0));
  const uint64_t pieces = pieces_per_iteration(piece);
  std::vector<char> src(piece, 'x');
  std::unique_ptr<char, void (*)(void*)> block(static_cast<char*>(aligned_malloc(kCBlockSize)),
                                               &aligned_free);
  uint64_t at = 0;
  for (auto _ : state) {
    for (uint64_t i = 0; i < pieces; ++i) {
      for (uint64_t copied = 0; copied < piece;) {
        if (at == kCBlockSize) at = 0;
        const uint64_t n = std::min(kCBlockSize - at, piece - copied);
        std::memcpy(block.get() + at, src.data() + copied, n);
        benchmark::ClobberMemory();
        at += n;
        copied += n;
      }
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pieces * piece));
}

BENCHMARK(BM_CBufferWriteThenZeroCopyRead)->Arg(188)->Arg(65536)->Arg(131071);
BENCHMARK(BM_Memcpy)->Arg(188)->Arg(65536)->Arg(131071);

}  // namespace
}  // namespace skerir

BENCHMARK_MAIN();
