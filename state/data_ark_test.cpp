#include "state/data_ark.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <set>
#include <sys/stat.h>

#include "plist/reader.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace {

// Counts down to the one allocation that fails; negative: none does.
int allocations_left = -1;

}  // namespace

void* operator new(size_t size) {
  void* memory = allocations_left >= 0 && allocations_left-- == 0 ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace corvane {
namespace {

namespace fs = std::filesystem;
using plist::Ref;
using plist::String;
using testing::read_file;
using testing::TestPlatform;
using testing::write_file;
using Texts = std::vector<std::string>;

Ref<String> text(std::string_view utf8) { return String::create(utf8); }

/// A domain or a key, from a C string; null is none.
struct Name {
  Name(const char* utf8) : string(utf8 == nullptr ? nullptr : text(utf8)) {}
  Name(std::nullptr_t) {}
  operator const String*() const { return string.get(); }
  Ref<String> string;
};

/// An ark in a fresh state directory.
class Ark : public ::testing::Test {
 protected:
  Ark() { fs::create_directories(folder_); }

  int set(Name domain, Name key, Ref<plist::Value> value) {
    return data_ark_set(ark_.get(), domain, key, value.get());
  }
  int set(Name domain, Name key, const char* value) { return set(domain, key, Ref<plist::Value>(text(value))); }
  int remove(Name domain, Name key) { return data_ark_remove(ark_.get(), domain, key); }
  int mark(Name domain, Name key, unsigned index) {
    return data_ark_set_attribute(ark_.get(), domain, key, index);
  }
  // Watches by name and by block for all three events, both called "<event> <name>".
  void watch(Name domain, Name key, const std::string& name) {
    const std::pair<unsigned, const char*> events[] = {{4, "change "}, {1, "set "}, {2, "remove "}};
    for (const auto& [flag, event] : events) {
      data_ark_watch(ark_.get(), domain, key, text(event + name), flag);
      const auto block = [this, full = event + name] { runs_.push_back(full); };
      data_ark_watch_block(ark_.get(), domain, key, block, flag);
    }
  }
  Texts take_runs() {
    platform_.run_main_queue();
    return std::exchange(runs_, {});
  }

  TestPlatform& platform_ = TestPlatform::fresh();
  const std::string folder_ = system_path("/private/var/mobile/Library/cvd");
  const std::string path_ = folder_ + "/data_ark.plist";
  DataArk ark_{data_ark_load()};
  Texts runs_;
};
using ArkDeathTest = Ark;

TEST_F(Ark, OrderAndAsymmetriesOfSetAndRemove) {
  EXPECT_EQ(remove("d", "k"), -1);
  watch("d", "k", "key");
  watch("d", nullptr, "domain");
  mark("d", nullptr, 2);
  const Texts changed{"change key", "change domain", "set key", "set domain"};
  const Texts own{"change domain", "change domain", "set domain", "set domain"};
  struct Step {
    const char* what;
    std::function<int()> act;
    Texts heard;  // by post and by callback alike
    uint32_t dirtied;
    Texts lines;
  };
  const Texts dirtied{"data_ark_set: dirtied by changing d-k"},
      null_value{"data_ark_set: data_ark_set: value is NULL"};
  const Step steps[] = {
      {"new", [&] { return set("d", "k", "1"); }, changed, 1, dirtied},
      {"equal", [&] { return set("d", "k", "1"); }, {"set key", "set domain"}, 0, {}},
      {"other", [&] { return set("d", "k", "2"); }, changed, 1, dirtied},
      {"removed", [&] { return remove("d", "k"); }, {"remove key"}, 1, {}},
      {"absent", [&] { return remove("d", "k"); }, {}, 0, {}},
      {"attribute 5 set", [&] { return mark("d", "k", 5), set("d", "k", "3"); }, changed, 0, {}},
      {"attribute 5 removed", [&] { return remove("d", "k"); }, {"remove key"}, 1, {}},
      {"attribute 7 set", [&] { return mark("d", "k", 7), set("d", "k", "3"); }, changed, 0, {}},
      {"attribute 7 removed", [&] { return remove("d", "k"); }, {"remove key"}, 0, {}},
      {"null key", [&] { return set("d", nullptr, "4"); }, own, 1, {"data_ark_set: dirtied by changing d-"}},
      {"null key removed", [&] { return remove("d", nullptr); }, {"remove domain"}, 1, {}},
      {"null value", [&] { return set("d", "k", Ref<plist::Value>()) + 1; }, {}, 0, null_value},
  };
  platform_.take_lines();
  for (const Step& step : steps) {
    const uint32_t before = data_ark_dirty_count(ark_.get());
    EXPECT_EQ(step.act(), 0) << step.what;
    EXPECT_EQ(std::exchange(platform_.posted, {}), step.heard) << step.what;
    EXPECT_TRUE(runs_.empty()) << step.what;
    // Each watch's posts come before its callbacks, so the callbacks are in the same order among themselves.
    EXPECT_EQ(take_runs(), step.heard) << step.what;
    EXPECT_EQ(data_ark_dirty_count(ark_.get()) - before, step.dirtied) << step.what;
    EXPECT_EQ(platform_.take_texts(), step.lines) << step.what;
  }
}

TEST_F(Ark, WatchesAreRegisteredInOrderUntilOneFails) {
  const Name d("d"), k("a key too long to be kept without an allocation of its own");
  const auto name = text("n"), one = text("1"), two = text("2");
  std::set<size_t> heard;
  for (int failing = 0, result = -1; result != 0; ++failing) {
    const DataArk ark = data_ark_load();
    allocations_left = failing;
    result = data_ark_watch(ark.get(), d, k, name, ARK_WATCH_SET | ARK_WATCH_REMOVE | ARK_WATCH_CHANGE);
    allocations_left = -1;
    for (const auto& value : {one, one, two}) data_ark_set(ark.get(), d, k, value.get());
    data_ark_remove(ark.get(), d, k);
    heard.insert(std::exchange(platform_.posted, {}).size());
    ASSERT_LT(failing, 100);
  }
  // Two changes, then also three sets, then also the removal.
  EXPECT_EQ(heard, (std::set<size_t>{0, 2, 5, 6}));

  const std::function<void()> block = [this, copied = std::string("cannot be copied")] {
    runs_.push_back(copied);
  };
  allocations_left = 0;
  EXPECT_EQ(data_ark_watch_block(ark_.get(), d, k, block, ARK_WATCH_SET), 0);
  data_ark_set(ark_.get(), d, k, one.get());
  EXPECT_TRUE(take_runs().empty());
}

// A change that is not counted would never be stored.
TEST_F(Ark, ASetThatRunsOutOfMemoryCountsWhatItHasSet) {
  const Name d("d"), k("a key too long to be kept without an allocation of its own");
  const auto one = text("1");
  for (int failing = 0, result = -1; result != 0; ++failing) {
    const DataArk ark = data_ark_load();
    data_ark_set_attribute(ark.get(), d, nullptr, 3);
    data_ark_watch_block(
        ark.get(), d, k, [] {}, ARK_WATCH_SET);
    allocations_left = failing;
    result = data_ark_set(ark.get(), d, k, one.get());
    allocations_left = -1;
    const bool is_set = data_ark_exists(ark.get(), d, k);
    EXPECT_EQ(data_ark_dirty_count(ark.get()), is_set ? 1u : 0u) << failing;
    EXPECT_EQ(data_ark_has_attribute(ark.get(), d, k, 3), is_set) << failing;
    ASSERT_LT(failing, 100);
  }
}

TEST_F(Ark, TypedGettersConvert) {
  const std::tuple<Ref<plist::Value>, int32_t, int64_t> cases[] = {
      {plist::Boolean::yes(), 1, 1},
      {plist::Boolean::no(), 0, 0},
      {plist::Number::create_int64((int64_t{1} << 40) + 7), 7, (int64_t{1} << 40) + 7},
      {plist::Number::create_real(-2.9), -2, -2},
      {plist::Number::create_real(1e30), INT32_MAX, INT64_MAX},
      {text("42 is the answer"), 42, 42},
      {text(" -17"), -17, -17},
      {text("99999999999"), INT32_MAX, INT32_MAX},
      {text("-99999999999"), INT32_MIN, INT32_MIN},
      {text("none 5"), 0, 0},
      {plist::Date::create(5), 0, 0},
  };
  const Name k("k");
  EXPECT_EQ(data_ark_get_int(ark_.get(), nullptr, k), 0);
  for (const auto& [value, as_32, as_64] : cases) {
    set(nullptr, "k", value);
    EXPECT_EQ(data_ark_get_int(ark_.get(), nullptr, k), as_32);
    EXPECT_EQ(data_ark_get_int64(ark_.get(), nullptr, k), as_64);
  }
  data_ark_set_int(ark_.get(), nullptr, k, -3);
  EXPECT_EQ(as_number(data_ark_copy(ark_.get(), nullptr, k).get())->type(), plist::Number::Type::int32);
  data_ark_set_int64(ark_.get(), nullptr, k, -3);
  EXPECT_EQ(as_number(data_ark_copy(ark_.get(), nullptr, k).get())->type(), plist::Number::Type::int64);
}

TEST_F(ArkDeathTest, AnIntegerThatCannotBeWrappedEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto die = [this](bool wide) {
    platform_.prepare_to_die();
    allocations_left = 0;
    wide ? data_ark_set_int64(ark_.get(), nullptr, nullptr, 1) : data_ark_set_int(ark_.get(), nullptr, nullptr, 1);
  };
  EXPECT_EXIT(die(false), ::testing::ExitedWithCode(255), "data_ark_set_int: Out of Memory!");
  EXPECT_EXIT(die(true), ::testing::ExitedWithCode(255), "data_ark_set_int64: Out of Memory!");
}

TEST_F(Ark, NestedContainersAreLoadedMutable) {
  const Ref<plist::MutableDictionary> outer = create_dict();
  outer->set("Inner", create_array());
  set("d", "k", outer);
  data_ark_store(ark_.get());
  ark_ = data_ark_load();
  const Ref<plist::Value> loaded = data_ark_copy(ark_.get(), Name("d"), Name("k"));
  EXPECT_TRUE(as_dictionary(loaded.get())->get("Inner")->is_mutable());
}

TEST_F(Ark, AFailedStoreLeavesTheOldFileAndTheNextOneStoresAll) {
  set("d", "k", "old");
  data_ark_store(ark_.get());
  set("d", "k", "new");
  const auto stored = [this] {
    const Ref<plist::Value> entries = load_dict(path_.c_str());
    return std::string(as_string(as_dictionary(entries.get())->get("d-k"))->view());
  };
  const auto log_of_failure = [this] {
    platform_.take_lines();
    data_ark_store(ark_.get());
    EXPECT_EQ(data_ark_dirty_count(ark_.get()), 0u);
    return platform_.take_texts().back();
  };
  const std::string temporary = path_ + ".XXXXXX";
  fs::create_directory(temporary);
  EXPECT_EQ(log_of_failure(), "data_ark_store: Could not store " + temporary);
  EXPECT_EQ(stored(), "old");
  fs::remove(temporary);
  fs::remove(path_);
  fs::create_directories(path_ + "/in the way");
  EXPECT_EQ(log_of_failure(), "data_ark_store: Problem renaming " + temporary + ": Is a directory");
  fs::remove_all(folder_);
  EXPECT_EQ(log_of_failure(), "data_ark_store: Could not store " + temporary);
  fs::create_directories(folder_);
  data_ark_store(ark_.get());
  EXPECT_EQ(stored(), "new");
}

TEST_F(Ark, WhatCannotBeReadIsKeptAside) {
  ASSERT_EQ(store_dict(path_.c_str(), *create_array()), 0);
  const std::string aside = path_ + ".unreadable", array = read_file(path_);
  const std::pair<std::string, std::string> files[] = {{aside, "text"}, {aside + ".1", array}, {aside + ".2", ""}};
  for (const auto& [name, bytes] : files) {
    write_file(path_, bytes);
    ark_ = data_ark_load();
    EXPECT_EQ(platform_.take_texts().back(), "data_ark_load: Could not load " + path_);
    data_ark_store(ark_.get());
    EXPECT_EQ(read_file(name), bytes);
  }
  EXPECT_EQ(read_file(aside), "text");

  // What is no file of ours stays where it is.
  const std::function<void()> plants[] = {[&] { fs::create_symlink("nowhere", path_); },
                                          [&] { mkfifo(path_.c_str(), 0600); },
                                          [&] { fs::create_directory(path_); }};
  for (const auto& plant : plants) {
    fs::remove(path_);
    plant();
    ark_ = data_ark_load();
    EXPECT_NE(fs::symlink_status(path_).type(), fs::file_type::not_found);
  }
}

}  // namespace
}  // namespace corvane
