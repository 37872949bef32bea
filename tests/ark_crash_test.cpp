#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <limits>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include "state/data_ark.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane::testing {
namespace {

constexpr int store_kills = 500;
constexpr unsigned longest_life_in_us = 2500;

void store(int64_t generation, int64_t last) {
  const DataArk ark = data_ark_load();
  for (; generation <= last; ++generation) {
    data_ark_set_int64(ark.get(), nullptr, plist::String::create("generation").get(), generation);
    data_ark_store(ark.get());
  }
}

// -1 where the file is not whole.
int64_t stored_generation(const std::string& path) {
  const plist::Ref<plist::Value> file = load_dict(path.c_str());
  const plist::Dictionary* entries = as_dictionary(file.get());
  return entries == nullptr ? -1 : as_number(entries->get("-generation"))->int64();
}

TEST(ArkCrash, AKilledStoreLeavesTheOldFileOrTheNewOne) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string path = system_path("/private/var/mobile/Library/cvd/data_ark.plist");
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::mt19937 random(1);
  // Under emulation this translates the code, which each child would have to do within its short life.
  store(0, 0);
  int64_t generation = 0;
  int children_that_stored = 0;
  for (int kill_number = 0; kill_number < store_kills; ++kill_number) {
    const pid_t child = fork();
    if (child == 0) store(generation + 1, std::numeric_limits<int64_t>::max());
    usleep(static_cast<unsigned>(random()) % longest_life_in_us);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const int64_t found = stored_generation(path);
    ASSERT_GE(found, generation) << "kill " << kill_number;
    if (found > generation) ++children_that_stored;
    generation = found;
    platform.take_lines();
  }
  EXPECT_GT(children_that_stored, store_kills / 10);
  EXPECT_FALSE(std::filesystem::exists(path + ".unreadable"));
}

}  // namespace
}  // namespace corvane::testing
