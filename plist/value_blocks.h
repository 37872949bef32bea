#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "plist/poisoned_memory.h"

namespace corvane::plist {

/// Where a value lies: in memory of its own (`block` 0), or in a block, of which it knows the distance.
struct ValuePlace {
  void* memory;
  uint16_t block;
};

/// While it lives, the values that its thread creates lie in blocks of memory instead of each in its own. A block
/// is freed with the last value in it: one that is kept keeps at most `largest_block` bytes. Large values get
/// memory of their own.
class ValueBlocks {
 public:
  static constexpr size_t largest_block = 64 * 1024;

  /// The values together will take about `expected_size` bytes.
  explicit ValueBlocks(size_t expected_size);
  ~ValueBlocks();
  ValueBlocks(const ValueBlocks&) = delete;
  ValueBlocks& operator=(const ValueBlocks&) = delete;

  /// Memory for a value of this thread. Throws std::bad_alloc.
  static ValuePlace allocate(size_t size) {
    ValueBlocks* const blocks = filling_;
    if (blocks == nullptr || size > largest_value) return {::operator new(size), 0};
    return blocks->take(size);
  }

  class FreedValues;

 private:
  // Values begin at multiples of it, so that a distance in these units fits 16 bits.
  static constexpr size_t unit = 16;
  static constexpr size_t largest_value = 4096;

  struct alignas(unit) Block {
    std::atomic<uint32_t> values;
  };

  ValuePlace take(size_t size) {
    const size_t taken = (size + unit - 1) / unit * unit;
    if (taken > end_ - used_) open_block(taken);
    void* const memory = reinterpret_cast<char*>(block_) + used_;
    const auto distance = static_cast<uint16_t>(used_ / unit);
    used_ += taken;
    ++values_;
    UNPOISON_MEMORY(memory, size);
    return {memory, distance};
  }
  void open_block(size_t first_size);
  void close_block();
  static void give_up(Block* block, uint32_t count);

  static thread_local constinit ValueBlocks* filling_;

  ValueBlocks* const outer_;
  size_t block_size_;
  Block* block_ = nullptr;
  size_t used_ = 0;  // of the block
  size_t end_ = 0;   // of the block, 0 where there is none
  uint32_t values_ = 0;
};

/// Frees the memory of values, on any thread. Values of the same block that follow each other are counted first,
/// and subtracted from the block's count together: when another block follows, or when this object dies.
class ValueBlocks::FreedValues {
 public:
  FreedValues() = default;
  FreedValues(const FreedValues&) = delete;
  FreedValues& operator=(const FreedValues&) = delete;
  ~FreedValues() {
    if (block_ != nullptr) give_up(block_, count_);
  }

  void add(ValuePlace place) {
    if (place.block == 0) return ::operator delete(place.memory);
    POISON_MEMORY(place.memory, unit);
    auto* const block = reinterpret_cast<Block*>(static_cast<char*>(place.memory) - place.block * unit);
    if (block_ != block) begin(block);
    ++count_;
  }

 private:
  void begin(Block* block) {
    if (block_ != nullptr) give_up(block_, count_);
    block_ = block;
    count_ = 0;
  }

  Block* block_ = nullptr;
  uint32_t count_ = 0;
};

}  // namespace corvane::plist
