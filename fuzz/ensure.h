#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the target, in every build, if the condition does not hold: the fuzzer then keeps the input.
#define ENSURE(condition) ((condition) ? void(0) : ::corvane::fuzz::found(#condition, __FILE__, __LINE__))

namespace corvane::fuzz {

[[noreturn]] inline void found(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: this does not hold: %s\n", file, line, condition);
  std::abort();
}

}  // namespace corvane::fuzz
