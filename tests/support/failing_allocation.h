#pragma once

#include <cstddef>
#include <functional>

namespace corvane::testing {

/// Runs `action` while its call of operator new with that number, counted from 0, throws std::bad_alloc. Answers
/// whether it made so many calls. For programs that have failing_allocation.cpp, which replaces operator new,
/// among their sources.
bool run_with_failing_allocation(int number, const std::function<void()>& action);

/// When set, operator delete hands it all memory before it is released.
extern void (*before_release)(char* memory, size_t size);

}  // namespace corvane::testing
