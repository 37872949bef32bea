// A block begins with the count of the values in it. While it is being filled the count is higher, by a number
// that no block reaches, so that values which are freed meanwhile do not free the block. A value finds its block
// by the distance that it keeps. Whoever destroys a tree counts the values of a block first, and subtracts them
// together. The address sanitizer is told what of a block is no value, and where a value was freed.

#include "plist/value_blocks.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(memory, size)
#define ASAN_UNPOISON_MEMORY_REGION(memory, size)
#endif

namespace corvane::plist {

namespace {

// Values begin at multiples of it, so that a distance in these units fits 16 bits.
constexpr size_t unit = 16;

constexpr size_t largest_value = 4096;

// What a block that is being filled counts in addition to its values, so that it is not freed yet.
constexpr uint32_t being_filled = 1u << 31;

constexpr size_t in_units(size_t size) { return (size + unit - 1) / unit * unit; }

}  // namespace

struct alignas(unit) ValueBlocks::Block {
  std::atomic<uint32_t> values{being_filled};
};

namespace {

thread_local ValueBlocks* filling = nullptr;

// Values that were freed on this thread and are not given up yet, all of one block.
struct Freed {
  bool counts = false;
  void* block = nullptr;
  uint32_t count = 0;
};
thread_local Freed freed;

}  // namespace

ValueBlocks::ValueBlocks(size_t expected_size)
    : outer_(std::exchange(filling, this)),
      block_size_(std::min(sizeof(Block) + in_units(expected_size), largest_block)) {}

ValueBlocks::~ValueBlocks() {
  filling = outer_;
  close_block();
}

ValuePlace ValueBlocks::allocate(size_t size) {
  if (filling == nullptr || size > largest_value) return {::operator new(size), 0};
  const ValuePlace place = filling->take(in_units(size));
  ASAN_UNPOISON_MEMORY_REGION(place.memory, size);
  return place;
}

ValuePlace ValueBlocks::take(size_t size) {
  if (block_ == nullptr || used_ + size > block_size_) {
    close_block();
    block_size_ = std::max(block_size_, sizeof(Block) + size);
    open_block();
  }
  const size_t at = std::exchange(used_, used_ + size);
  ++values_;
  return {reinterpret_cast<char*>(block_) + at, static_cast<uint16_t>(at / unit)};
}

void ValueBlocks::open_block() {
  block_ = new (::operator new(block_size_)) Block();
  ASAN_POISON_MEMORY_REGION(block_ + 1, block_size_ - sizeof(Block));
  used_ = sizeof(Block);
  values_ = 0;
}

void ValueBlocks::close_block() {
  if (block_ != nullptr) give_up(std::exchange(block_, nullptr), being_filled - values_);
}

void ValueBlocks::free(ValuePlace place) {
  if (place.block == 0) return ::operator delete(place.memory);
  ASAN_POISON_MEMORY_REGION(place.memory, unit);
  auto* block = reinterpret_cast<Block*>(static_cast<char*>(place.memory) - place.block * unit);
  if (!freed.counts) return give_up(block, 1);
  if (freed.block != block) {
    if (freed.block != nullptr) give_up(static_cast<Block*>(freed.block), freed.count);
    freed.block = block;
    freed.count = 0;
  }
  ++freed.count;
}

void ValueBlocks::begin_freeing() { freed.counts = true; }

void ValueBlocks::end_freeing() {
  freed.counts = false;
  if (freed.block != nullptr) give_up(static_cast<Block*>(std::exchange(freed.block, nullptr)), freed.count);
}

// The last values of a block are given up without a locked instruction.
void ValueBlocks::give_up(Block* block, uint32_t count) {
  if (block->values.load(std::memory_order_acquire) == count ||
      block->values.fetch_sub(count, std::memory_order_acq_rel) == count) {
    ::operator delete(block);
  }
}

}  // namespace corvane::plist
