#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

namespace corvane::plist {

/// A list whose first `usual` elements need no allocation.
template <class T, size_t usual>
class ShortList {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  ShortList() = default;
  ShortList(const ShortList&) = delete;
  ShortList& operator=(const ShortList&) = delete;

  size_t size() const { return size_; }
  T& operator[](size_t index) { return elements_[index]; }
  const T& operator[](size_t index) const { return elements_[index]; }
  T* begin() { return elements_; }
  T* end() { return elements_ + size_; }

  /// Throws std::bad_alloc with the list as it was.
  void push_back(T element) {
    if (size_ == capacity_) grow(2 * size_);
    elements_[size_++] = element;
  }
  /// Adds `count` elements of unspecified content. Throws std::bad_alloc with the list as it was.
  void extend(size_t count) {
    if (count > capacity_ - size_) grow(std::max(size_ + count, 2 * size_));
    size_ += count;
  }

 private:
  void grow(size_t capacity) {
    auto larger = std::make_unique_for_overwrite<T[]>(capacity);
    std::copy(begin(), end(), larger.get());
    allocated_ = std::move(larger);
    elements_ = allocated_.get();
    capacity_ = capacity;
  }

  T* elements_ = room_;
  size_t size_ = 0;
  size_t capacity_ = usual;
  std::unique_ptr<T[]> allocated_;
  T room_[usual];
};

}  // namespace corvane::plist
