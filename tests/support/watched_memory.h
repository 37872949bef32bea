#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_set>

/// Replaces `operator new` and libcrypto's allocation in the test that links it: lets memory run out, and looks at
/// what memory holds when it is released. One thread at a time.
namespace corvane::testing {

/// Counts down to the one `operator new` that fails; negative: none does.
extern int allocations_left;

/// Whether libcrypto's memory is watched, which it allows only before its first allocation.
extern const bool libcrypto_is_watched;

/// A secret, of which any 8 bytes in a row are a piece.
class Pieces {
 public:
  void add(std::string_view secret);
  size_t count_in(std::string_view memory) const;

 private:
  std::unordered_set<uint64_t> pieces_;
};

/// Counts the pieces in all memory that is released in its lifetime.
class ReleasedMemory {
 public:
  explicit ReleasedMemory(const Pieces& secret);
  ~ReleasedMemory();
  size_t pieces_found() const;
};

/// The stack of a thread that runs a function, to be searched afterwards.
class WatchedStack {
 public:
  WatchedStack();
  /// What `function` leaves on the stack; valid until the next call.
  std::string_view after(std::function<void()> function);

 private:
  static constexpr size_t size = 1 << 20;
  struct Page {
    alignas(4096) char bytes[4096];
  };
  const std::unique_ptr<Page[]> pages_;
};

/// Leaves 8 bytes deep on the stack, where what runs later does not overwrite them.
void leave_on_the_stack(std::string_view bytes);

}  // namespace corvane::testing
