#include "fuzz/heap.h"

#include <atomic>

#if defined(__SANITIZE_ADDRESS__)
#define HAS_HOOKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HAS_HOOKS 1
#endif
#endif

#ifdef HAS_HOOKS
#include <sanitizer/allocator_interface.h>
#endif

namespace corvane::fuzz {

namespace {

std::atomic<bool> counting{false};
std::atomic<ptrdiff_t> grown{0};
std::atomic<ptrdiff_t> most_grown{0};

#ifdef HAS_HOOKS
void allocated(const volatile void*, size_t size) {
  if (!counting) return;
  const ptrdiff_t now = grown += static_cast<ptrdiff_t>(size);
  if (now > most_grown) most_grown = now;
}
void freed(const volatile void* memory) {
  if (counting && memory != nullptr)
    grown -= static_cast<ptrdiff_t>(__sanitizer_get_allocated_size(const_cast<const void*>(memory)));
}
const int hooked = __sanitizer_install_malloc_and_free_hooks(allocated, freed);
#endif

}  // namespace

HeapGrowth::HeapGrowth() {
  grown = most_grown = 0;
  counting = true;
}
HeapGrowth::~HeapGrowth() { counting = false; }

size_t HeapGrowth::most() const { return static_cast<size_t>(most_grown.load()); }

}  // namespace corvane::fuzz
