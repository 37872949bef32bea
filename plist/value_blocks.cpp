// A block begins with the count of the values in it. While it is being filled the count is higher, by a number
// that no block reaches, so that values which are freed meanwhile do not free the block. A value finds its block
// by the distance that it keeps. The address sanitizer is told what of a block is no value, and where a value was
// freed.

#include "plist/value_blocks.h"

#include <algorithm>
#include <utility>

namespace corvane::plist {

namespace {

// What a block that is being filled counts in addition to its values, so that it is not freed yet.
constexpr uint32_t being_filled = 1u << 31;

}  // namespace

thread_local constinit ValueBlocks* ValueBlocks::filling_ = nullptr;

ValueBlocks::ValueBlocks(size_t expected_size)
    : outer_(std::exchange(filling_, this)),
      block_size_(std::min(sizeof(Block) + (expected_size + unit - 1) / unit * unit, largest_block)) {}

ValueBlocks::~ValueBlocks() {
  filling_ = outer_;
  close_block();
}

void ValueBlocks::open_block(size_t first_size) {
  close_block();
  block_size_ = std::max(block_size_, sizeof(Block) + first_size);
  block_ = new (::operator new(block_size_)) Block{being_filled};
  POISON_MEMORY(block_ + 1, block_size_ - sizeof(Block));
  used_ = sizeof(Block);
  end_ = block_size_;
  values_ = 0;
}

void ValueBlocks::close_block() {
  end_ = used_;
  if (block_ != nullptr) give_up(std::exchange(block_, nullptr), being_filled - values_);
}

// The last values of a block are given up without a locked instruction.
void ValueBlocks::give_up(Block* block, uint32_t count) {
  if (block->values.load(std::memory_order_acquire) == count ||
      block->values.fetch_sub(count, std::memory_order_acq_rel) == count) {
    ::operator delete(block);
  }
}

}  // namespace corvane::plist
