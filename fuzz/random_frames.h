#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace corvane::fuzz {

/// An endless stream of frames for the daemon: good requests, mutated ones, random bytes in a good header. One
/// seed always gives the same frames.
class RandomFrames {
 public:
  explicit RandomFrames(uint64_t seed);

  /// A frame with a header that is right, so that another frame can follow it.
  std::string next();
  /// A frame with a random byte in its header. What is sent behind it may be taken for anything.
  std::string next_with_bad_header();
  /// A random number below `bound`, which is not 0.
  size_t below(size_t bound);

 private:
  std::string random_body();
  std::string random_bytes(size_t count);
  std::string spliced(const std::string& body);
  void mutate(std::string& body);
  const std::string& any_request();

  std::mt19937_64 random_;
  std::vector<std::string> requests_;  // bodies of good requests, in both encodings
  std::string images_request_;
};

}  // namespace corvane::fuzz
