#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "plist/writer.h"

namespace corvane {

/// Has large answers with equal bytes held once, however many clients read them at the same time. An answer is
/// compared with those that are still under way, after the request has made it. One thread.
class SharedAnswers {
 public:
  using Answer = std::shared_ptr<const plist::ByteChain>;

  /// Whether an answer is so large that sharing it pays.
  static bool is_large(const plist::ByteChain& answer);

  /// The answer under way that has the same bytes, or else this one, which is under way from now on until nobody
  /// holds it. Must outlive the answers. Throws std::bad_alloc.
  Answer share(plist::ByteChain answer);

  /// The bytes of the answers under way, each counted once.
  size_t bytes() const { return bytes_; }

 private:
  std::vector<std::weak_ptr<const plist::ByteChain>> under_way_;
  size_t bytes_ = 0;
};

}  // namespace corvane
