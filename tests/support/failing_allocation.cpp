#include "tests/support/failing_allocation.h"

#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {

constexpr int none = -1;

int calls_before_failure = none;

struct Reset {
  ~Reset() { calls_before_failure = none; }
};

}  // namespace

void (*corvane::testing::before_release)(char* memory, size_t size) = nullptr;

// Sanitizers would bring their own, whose memory operator delete must not give to free.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  const bool fails = calls_before_failure != none && calls_before_failure-- == 0;
  return fails ? nullptr : std::malloc(size);
}
void* operator new(size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
// When g++ inlines them without operator new it warns of a mismatch.
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory != nullptr && corvane::testing::before_release != nullptr) {
    corvane::testing::before_release(static_cast<char*>(memory), malloc_usable_size(memory));
  }
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { operator delete(memory); }

bool corvane::testing::run_with_failing_allocation(int number, const std::function<void()>& action) {
  const Reset reset;
  calls_before_failure = number;
  action();
  return calls_before_failure == none;
}
