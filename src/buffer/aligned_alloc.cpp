#include "buffer/aligned_alloc.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace skerir {
namespace {

constexpr size_t kAlignment = 16;
// 8 bytes for the raw start plus up to 15 to reach the next boundary.
constexpr size_t kSlack = 23;

// Relaxed: a test sets the fault before it starts allocating and clears it afterwards.
std::atomic<bool (*)(size_t)> g_fault{nullptr};

}  // namespace

void* aligned_malloc(size_t size) {
  if (size > SIZE_MAX - kSlack) return nullptr;
  if (auto fail = g_fault.load(std::memory_order_relaxed); fail != nullptr && fail(size)) {
    return nullptr;
  }
  void* raw = std::malloc(size + kSlack);
  if (raw == nullptr) return nullptr;
  const uintptr_t start = reinterpret_cast<uintptr_t>(raw);
  const uintptr_t aligned = (start + kSlack) & ~uintptr_t{kAlignment - 1};
  char* p = static_cast<char*>(raw) + (aligned - start);
  std::memcpy(p - sizeof(void*), &raw, sizeof(void*));
  return p;
}

void aligned_free(void* p) {
  void* raw;
  std::memcpy(&raw, static_cast<char*>(p) - sizeof(void*), sizeof(void*));
  std::free(raw);
}

namespace testing {

void set_aligned_malloc_fault(bool (*fail)(size_t size)) {
  g_fault.store(fail, std::memory_order_relaxed);
}

}  // namespace testing
}  // namespace skerir
