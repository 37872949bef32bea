#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace corvane {

/// Puts errno back at the end of its scope, for what tidies up or reports after a failure.
class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = kept_; }

 private:
  const int kept_ = errno;
};

/// Owns a descriptor, or none (-1). Closing leaves errno as the failure before it set it.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    const ErrnoKeeper keeper;
    if (is_open()) ::close(number_);
  }

  bool is_open() const { return number_ >= 0; }
  int number() const { return number_; }
  /// Gives the descriptor to the caller, who must close it.
  int detach() { return std::exchange(number_, -1); }

 private:
  int number_;
};

}  // namespace corvane
