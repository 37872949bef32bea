#pragma once

#include <cstddef>
#include <cstdint>

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
  static ValuePlace allocate(size_t size);
  /// Frees a value's memory. Any thread.
  static void free(ValuePlace place);

  /// Between these two, both on one thread, values of the same block are counted before they are given up
  /// together.
  static void begin_freeing();
  static void end_freeing();

 private:
  struct Block;

  ValuePlace take(size_t size);
  void open_block();
  void close_block();
  static void give_up(Block* block, uint32_t count);

  ValueBlocks* const outer_;
  size_t block_size_;
  Block* block_ = nullptr;
  size_t used_ = 0;  // of the block
  uint32_t values_ = 0;
};

}  // namespace corvane::plist
