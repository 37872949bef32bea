#pragma once

/// Tells the address sanitizer which memory nobody may touch. Nothing in other builds.
#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#define POISON_MEMORY(memory, size) ASAN_POISON_MEMORY_REGION(memory, size)
#define UNPOISON_MEMORY(memory, size) ASAN_UNPOISON_MEMORY_REGION(memory, size)
#else
#define POISON_MEMORY(memory, size)
#define UNPOISON_MEMORY(memory, size)
#endif
