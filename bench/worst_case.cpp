// What hostile property lists cost: milliseconds and bytes of memory for decoding each and giving the result back,
// as immutable values, as mutable ones, and as the body of a request. Each figure also as a multiple of what a
// normal document of the same size and encoding costs in the same run. Ends with status 1 where 64 KiB cost more
// than the bound.

#include <algorithm>
#include <cstdio>
#include <functional>
#include <malloc.h>
#include <span>
#include <string>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "bench/hostile_documents.h"
#include "daemon/protocols.h"
#include "plist/reader.h"
#include "tests/support/test_platform.h"
#include "wire/messages.h"

// ---- counting what malloc gives, to Expat as well -----------------------------------------------------

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void __libc_free(void* memory);
}

namespace {

size_t live = 0;
size_t highest = 0;

void* counted(void* memory) {
  if (memory != nullptr) live += malloc_usable_size(memory);
  highest = std::max(highest, live);
  return memory;
}

}  // namespace

extern "C" {
void* malloc(size_t size) { return counted(__libc_malloc(size)); }
void* calloc(size_t count, size_t size) { return counted(__libc_calloc(count, size)); }
void free(void* memory) {
  if (memory != nullptr) live -= malloc_usable_size(memory);
  __libc_free(memory);
}
// Both blocks exist at once while the bytes are moved.
void* realloc(void* old, size_t size) {
  const size_t old_size = old == nullptr ? 0 : malloc_usable_size(old);
  void* const memory = __libc_realloc(old, size);
  if (memory == nullptr) return nullptr;
  if (memory == old) live -= old_size;
  counted(memory);
  if (memory != old) live -= old_size;
  return memory;
}
}

namespace corvane {

namespace {

constexpr size_t sizes[] = {64 * 1024, 1024 * 1024};
constexpr double most_milliseconds = 10;
constexpr double most_mebibytes = 8;

struct Cost {
  double milliseconds = 0;
  double mebibytes = 0;
};

// Processor time, so that other programs on the machine do not count.
double milliseconds_used() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return 1e3 * static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_nsec);
}

// The median of some runs, each of which also frees what it has made.
Cost cost_of(const std::function<void()>& work) {
  constexpr int runs = 9;
  std::vector<double> times;
  Cost cost;
  for (int i = 0; i < runs; ++i) {
    const size_t before = live;
    highest = live;
    const double start = milliseconds_used();
    work();
    times.push_back(milliseconds_used() - start);
    cost.mebibytes = static_cast<double>(highest - before) / (1024 * 1024);
  }
  std::nth_element(times.begin(), times.begin() + runs / 2, times.end());
  cost.milliseconds = times[runs / 2];
  return cost;
}

struct Row {
  Cost immutable, made_mutable, request;
  bool is_read = false;
};

class Bench {
 public:
  /// Whether every document of 64 KiB keeps to the bound.
  bool run() {
    bool kept = true;
    for (const size_t size : sizes) {
      std::printf(
          "\n| %zu KiB | read | immutable ms | x normal | MiB | mutable ms | x normal | MiB | request ms | x "
          "normal | MiB |\n|---|---|---|---|---|---|---|---|---|---|---|\n",
          size / 1024);
      kept &= table("binary", hostile_binary_documents(), size) || size != sizes[0];
      kept &= table("XML", hostile_xml_documents(), size) || size != sizes[0];
    }
    return kept;
  }

 private:
  bool table(const char* encoding, std::span<const HostileDocument> documents, size_t size) {
    bool kept = true;
    const Row normal = measure(documents[0].make(size));
    for (const HostileDocument& each : documents) {
      const std::string bytes = each.make(size);
      if (bytes.size() > size) std::printf("%s is too long: %zu\n", each.name, bytes.size());
      const Row row = measure(bytes);
      std::printf("| %s: %s | %s |", encoding, each.name, row.is_read ? "yes" : "no");
      const std::pair<const Cost&, const Cost&> columns[] = {{row.immutable, normal.immutable},
                                                             {row.made_mutable, normal.made_mutable},
                                                             {row.request, normal.request}};
      for (const auto& [cost, usual] : columns) {
        std::printf(" %.2f | %.1f | %.2f |", cost.milliseconds, cost.milliseconds / usual.milliseconds,
                    cost.mebibytes);
        kept &= cost.milliseconds <= most_milliseconds && cost.mebibytes <= most_mebibytes;
      }
      std::printf("\n");
    }
    return kept;
  }

  Row measure(const std::string& bytes) {
    const auto data = plist::Data::create(bytes);
    Row row;
    row.is_read = plist::decode(data, plist::Containers::immutable).value.get() != nullptr;
    row.immutable = cost_of([&] { plist::decode(data, plist::Containers::immutable); });
    row.made_mutable = cost_of([&] { plist::decode(data, plist::Containers::made_mutable); });
    row.request = cost_of([&] {
      plist::ByteChain response;
      corvane_protocol().deliver(object_, {Message::raw_data, data}, response);
    });
    testing::TestPlatform::installed().take_lines();
    return row;
  }

  ExportedObject object_;
};

}  // namespace

}  // namespace corvane

int main() {
  corvane::testing::TestPlatform::fresh();
  return corvane::Bench().run() ? 0 : 1;
}
