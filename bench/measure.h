#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

/// What the benchmarks share. They print figures, one line of JSON each, and each figure once in every round.
/// bench/report tells the rounds apart by that, and takes ratios within a round only: machines are noisy, but less
/// so within a second.
namespace corvane::bench {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

[[noreturn]] inline void die(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
  std::exit(1);
}

inline void must(bool ok, const char* what) {
  if (!ok) die(what);
}

/// One figure: which row it belongs to, who or what was measured, and the number with its unit. No name needs
/// escaping.
inline void figure(const std::string& row, const std::string& what, const char* unit, double value) {
  std::printf("{\"row\": \"%s\", \"what\": \"%s\", \"unit\": \"%s\", \"value\": %.17g}\n", row.c_str(),
              what.c_str(), unit, value);
}

inline double nanoseconds_since(steady_clock::time_point start) {
  return std::chrono::duration<double, std::nano>(steady_clock::now() - start).count();
}

/// Nanoseconds for one of `count` operations that `all` does together.
template <class Operation>
double time_of(size_t count, Operation all) {
  const auto start = steady_clock::now();
  all();
  return nanoseconds_since(start) / static_cast<double>(count);
}

/// Nanoseconds for one operation, of as many as `slice` has room for; at least one.
template <class Operation>
double time_of_each(milliseconds slice, Operation operation) {
  const auto start = steady_clock::now();
  size_t done = 0;
  // Reading the clock would count as a part of short operations, so it is read ever more rarely.
  for (size_t batch = 1; steady_clock::now() - start < slice; batch += batch / 4 + 1) {
    for (size_t i = 0; i < batch; ++i) operation();
    done += batch;
  }
  return nanoseconds_since(start) / static_cast<double>(done);
}

/// Makes the compiler believe that the value is used.
template <class T>
void keep(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

inline double at(const std::vector<double>& sorted, double share) {
  return sorted[static_cast<size_t>(share * static_cast<double>(sorted.size() - 1))];
}

/// The argument at that place, a count.
inline size_t count_argument(int argc, char** argv, int place, size_t fallback) {
  return place < argc ? std::strtoull(argv[place], nullptr, 10) : fallback;
}

}  // namespace corvane::bench
