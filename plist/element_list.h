#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <utility>

namespace corvane::plist {

/// The elements of a container. The first ones lie behind the object that holds the list, in the same piece of
/// memory, so that a container of known size is allocated at once; when there are more they all move to memory
/// of their own. T must survive being moved bytewise, as Ref does.
template <class T>
class ElementList {
 public:
  /// The bytes that an object of `object_size` takes with room for `capacity` elements behind it. Throws
  /// std::bad_alloc where there are not so many.
  static size_t size_with(size_t object_size, size_t capacity) {
    if (capacity > std::numeric_limits<uint32_t>::max()) throw std::bad_alloc();
    return object_size + capacity * sizeof(T);
  }

  /// There is room for `capacity` elements at `behind`.
  ElementList(void* behind, size_t capacity)
      : elements_(static_cast<T*>(behind)), capacity_(static_cast<uint32_t>(capacity)) {}
  ElementList(const ElementList&) = delete;
  ElementList& operator=(const ElementList&) = delete;
  ~ElementList() {
    std::destroy_n(elements_, size_);
    if (moved_) ::operator delete(elements_);
  }

  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  T& operator[](size_t index) { return elements_[index]; }
  const T& operator[](size_t index) const { return elements_[index]; }
  T& back() { return elements_[size_ - 1]; }
  operator std::span<const T>() const { return {elements_, size_}; }

  /// Throws std::bad_alloc with the list as it was.
  void push_back(T element) {
    if (size_ == capacity_) reserve(capacity_ < 4 ? 4 : size_t{2} * capacity_);
    new (elements_ + size_++) T(std::move(element));
  }

  /// Moves each element, in order, to `take`, and empties the list.
  template <class Take>
  void take_all(Take take) {
    for (T* element = elements_; element != elements_ + size_; ++element) take(std::move(*element));
    size_ = 0;
  }

  void pop_back() { std::destroy_at(elements_ + --size_); }

  void reserve(size_t capacity) {
    if (capacity <= capacity_) return;
    void* larger = ::operator new(size_with(0, capacity));
    if (size_ > 0) std::memcpy(larger, static_cast<void*>(elements_), size_ * sizeof(T));
    if (moved_) ::operator delete(elements_);
    elements_ = static_cast<T*>(larger);
    capacity_ = static_cast<uint32_t>(capacity);
    moved_ = true;
  }

 private:
  T* elements_;
  uint32_t size_ = 0;
  uint32_t capacity_;
  bool moved_ = false;
};

}  // namespace corvane::plist
