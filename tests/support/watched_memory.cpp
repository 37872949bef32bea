#include "tests/support/watched_memory.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>
#include <pthread.h>

namespace corvane::testing {

namespace {

const Pieces* watched_for = nullptr;
size_t found = 0;

// Wipes it as well, so that what a test itself leaves there is not found again in what others release later.
void release(void* memory) {
  if (memory == nullptr) return;
  const size_t size = malloc_usable_size(memory);
  if (watched_for != nullptr) found += watched_for->count_in({static_cast<const char*>(memory), size});
  explicit_bzero(memory, size);
  std::free(memory);
}

uint64_t piece_at(const char* bytes) {
  uint64_t piece;
  std::memcpy(&piece, bytes, sizeof piece);
  return piece;
}

}  // namespace

int allocations_left = -1;

const bool libcrypto_is_watched =
    CRYPTO_set_mem_functions(
        [](size_t size, const char*, int) { return std::malloc(size); },
        [](void* memory, size_t size, const char*, int) { return std::realloc(memory, size); },
        [](void* memory, const char*, int) { release(memory); }) == 1;

void Pieces::add(std::string_view secret) {
  for (size_t i = 0; i + sizeof(uint64_t) <= secret.size(); ++i) pieces_.insert(piece_at(secret.data() + i));
}

size_t Pieces::count_in(std::string_view memory) const {
  size_t count = 0;
  for (size_t i = 0; i + sizeof(uint64_t) <= memory.size(); ++i) count += pieces_.count(piece_at(&memory[i]));
  return count;
}

ReleasedMemory::ReleasedMemory(const Pieces& secret) {
  found = 0;
  watched_for = &secret;
}

ReleasedMemory::~ReleasedMemory() { watched_for = nullptr; }

size_t ReleasedMemory::pieces_found() const { return found; }

WatchedStack::WatchedStack() : pages_(std::make_unique<Page[]>(size / sizeof(Page))) {}

std::string_view WatchedStack::after(std::function<void()> function) {
  std::memset(pages_.get(), 0, size);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (pthread_attr_setstack(&attributes, pages_.get(), size) != 0) std::abort();
  const auto call = [](void* given) -> void* {
    (*static_cast<std::function<void()>*>(given))();
    return nullptr;
  };
  pthread_t thread;
  if (pthread_create(&thread, &attributes, call, &function) != 0) std::abort();
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  return {pages_[0].bytes, size};
}

void leave_on_the_stack(std::string_view bytes) {
  char deep[32768];
  std::memcpy(deep, bytes.data(), 8);
  asm volatile("" : : "r"(deep) : "memory");  // or the compiler would drop the copy
}

}  // namespace corvane::testing

using corvane::testing::allocations_left;

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return allocations_left >= 0 && allocations_left-- == 0 ? nullptr : std::malloc(size);
}
void* operator new(size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { corvane::testing::release(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { corvane::testing::release(memory); }
