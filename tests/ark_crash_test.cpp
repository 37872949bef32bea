#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "state/data_ark.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane::testing {
namespace {

#ifdef CORVANE_SANITIZE
constexpr int store_kills = 100;
#else
constexpr int store_kills = 2000;
#endif

constexpr int entries = 40;

void sleep_up_to(std::mt19937& random, int microseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(random() % static_cast<unsigned>(microseconds)));
}

void set_generation(data_ark* ark, int64_t generation) {
  for (int i = 0; i < entries; ++i) {
    data_ark_set_int64(ark, nullptr, plist::String::create(std::to_string(i)).get(), generation);
  }
}

// The one generation of all entries, or -1.
int64_t generation_of(const std::string& path) {
  const plist::Ref<plist::Value> value = load_dict(path.c_str());
  const plist::Dictionary* file = as_dictionary(value.get());
  if (file == nullptr || file->size() != entries) return -1;
  const int64_t generation = as_number(file->entries()[0].value.get())->int64();
  for (const auto& entry : file->entries()) {
    if (as_number(entry.value.get())->int64() != generation) return -1;
  }
  return generation;
}

[[noreturn]] void store_for_ever(int64_t generation) {
  const DataArk ark = data_ark_load();
  for (;; ++generation) {
    set_generation(ark.get(), generation);
    data_ark_store(ark.get());
  }
}

// Whoever stores is killed at any moment; what is found is what one store wrote, and nothing was set aside.
TEST(ArkCrash, AKilledStoreLeavesTheOldFileOrTheNewOne) {
  TestPlatform::fresh();
  const std::string folder = system_path("/private/var/mobile/Library/cvd"), path = folder + "/data_ark.plist";
  std::filesystem::create_directories(folder);
  const DataArk first = data_ark_load();
  set_generation(first.get(), 0);
  data_ark_store(first.get());

  std::mt19937 random(1);
  int64_t generation = 0;
  int moved_on = 0;
  for (int i = 0; i < store_kills; ++i) {
    const pid_t child = fork();
    if (child == 0) store_for_ever(generation + 1);
    sleep_up_to(random, 2500);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const int64_t found = generation_of(path);
    ASSERT_GE(found, generation) << "kill " << i;
    moved_on += found > generation ? 1 : 0;
    generation = found;
    TestPlatform::installed().take_lines();
  }
  EXPECT_GT(moved_on, store_kills / 10);
  EXPECT_FALSE(std::filesystem::exists(path + ".unreadable"));
}

}  // namespace
}  // namespace corvane::testing
