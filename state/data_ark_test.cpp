#include "state/data_ark.h"

#include <filesystem>

#include "plist/describe.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/state_fixture.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using plist::Ref;
using plist::String;
using namespace testing;

constexpr char ark_path[] = "/private/var/mobile/Library/cvd/data_ark.plist";
constexpr char long_key[] = "a key that is too long to be kept without an allocation";

Ref<String> text(const char* utf8) { return utf8 == nullptr ? nullptr : String::create(utf8); }

/// An ark in a fresh state directory. A null domain or key is none.
class Ark : public StateTest {
 protected:
  Ark() { fs::create_directories(directory_); }

  int set(const char* domain, const char* key, const char* value) {
    return data_ark_set(ark_.get(), text(domain).get(), text(key).get(), text(value).get());
  }
  int remove(const char* domain, const char* key) {
    return data_ark_remove(ark_.get(), text(domain).get(), text(key).get());
  }
  std::string copy(const char* domain, const char* key = nullptr) {
    return plist::describe(data_ark_copy(ark_.get(), text(domain).get(), text(key).get()).get());
  }
  int set_attribute(const char* domain, const char* key, unsigned index) {
    return data_ark_set_attribute(ark_.get(), text(domain).get(), text(key).get(), index);
  }
  bool has_attribute(const char* domain, const char* key, unsigned index) {
    return data_ark_has_attribute(ark_.get(), text(domain).get(), text(key).get(), index);
  }
  uint32_t dirty_count() { return data_ark_dirty_count(ark_.get()); }

  // Registers a notification and a callback, both of that name.
  void watch(const char* domain, const char* key, const std::string& name, unsigned flags) {
    EXPECT_EQ(data_ark_watch(ark_.get(), text(domain).get(), text(key).get(), text(name.c_str()), flags), 0);
    const auto callback = [this, name] { called_back_.push_back(name); };
    EXPECT_EQ(data_ark_watch_block(ark_.get(), text(domain).get(), text(key).get(), callback, flags), 0);
  }
  void expect_notified(const char* step, const Lines& names) {
    EXPECT_EQ(std::exchange(platform_.posted, {}), names) << "notifications after " << step;
    EXPECT_TRUE(called_back_.empty()) << "a callback ran before the main queue did, at " << step;
    platform_.run_main_queue();
    EXPECT_EQ(std::exchange(called_back_, {}), names) << "callbacks after " << step;
  }
  std::string stored() { return plist::describe(load_dict(path_.c_str()).get()); }

  const std::string path_ = at(ark_path), directory_ = fs::path(path_).parent_path();
  DataArk ark_ = data_ark_load();
  Lines called_back_;
};

// The answers to sets, copies, removals and attributes are compared with a plain map by fuzz/ark_load.cpp.

TEST_F(Ark, AttributesDecideWhatIsCountedAsUnsaved) {
  log();
  set("domain", "key", "1");
  EXPECT_EQ(dirty_count(), 1u) << "a first set";
  set("domain", "key", "1");
  EXPECT_EQ(dirty_count(), 1u) << "a set of an equal value";
  EXPECT_EQ(set("domain", "key", nullptr), -1);
  EXPECT_EQ(dirty_count(), 1u) << "a set of null";
  remove("domain", "key");
  EXPECT_EQ(dirty_count(), 2u) << "a removal";
  EXPECT_EQ(log(),
            (Lines{"data_ark_set: dirtied by changing domain-key", "data_ark_set: data_ark_set: value is NULL"}));

  for (const unsigned attribute : {ARK_NOT_STORED, ARK_ALSO_NOT_STORED}) {
    set_attribute("domain", "key", attribute);
    set("domain", "key", "1");
    remove("domain", "key");
    EXPECT_EQ(dirty_count(), 2u) << "a set and a removal with attribute " << attribute;
  }
  set_attribute("domain", "key", ARK_CHANGE_UNCOUNTED);
  set("domain", "key", "1");
  EXPECT_EQ(dirty_count(), 2u) << "a set with attribute 5";
  remove("domain", "key");
  EXPECT_EQ(dirty_count(), 3u) << "a removal with attribute 5";
}

TEST_F(Ark, IntegersAreConvertedAndSetAsTheKindAskedFor) {
  const std::tuple<Ref<plist::Value>, int32_t, int64_t> conversions[] = {
      {plist::Boolean::yes(), 1, 1},
      {plist::Boolean::no(), 0, 0},
      {plist::Number::create_int64((int64_t{1} << 40) + 7), 7, (int64_t{1} << 40) + 7},
      {plist::Number::create_real(-2.9), -2, -2},
      {plist::Number::create_real(1e30), INT32_MAX, INT64_MAX},
      {text(" -17 is the answer"), -17, -17},
      {text("99999999999"), INT32_MAX, INT32_MAX},
      {text("-99999999999"), INT32_MIN, INT32_MIN},
      {plist::Date::create(5), 0, 0},
  };
  const auto key = text("key");
  for (const auto& [value, as_32_bits, as_64_bits] : conversions) {
    data_ark_set(ark_.get(), nullptr, key.get(), value.get());
    EXPECT_EQ(data_ark_get_int(ark_.get(), nullptr, key.get()), as_32_bits) << copy(nullptr);
    EXPECT_EQ(data_ark_get_int64(ark_.get(), nullptr, key.get()), as_64_bits) << copy(nullptr);
  }
  data_ark_set_int(ark_.get(), nullptr, key.get(), -3);
  EXPECT_EQ(as_number(data_ark_copy(ark_.get(), nullptr, key.get()).get())->type(), plist::Number::Type::int32);
  data_ark_set_int64(ark_.get(), nullptr, key.get(), -3);
  EXPECT_EQ(as_number(data_ark_copy(ark_.get(), nullptr, key.get()).get())->type(), plist::Number::Type::int64);
}

// A change that is set and not counted would never be stored.
TEST_F(Ark, ASetThatRunsOutOfMemoryIsCountedIfItHasSetTheValue) {
  const auto domain = text("domain"), key = text(long_key), value = text("value");
  bool failed = true;
  for (int number = 0; failed; ++number) {
    ark_ = data_ark_load();
    for (const char* other : {"a", "b", "c", "d"}) set("other", other, "1");
    data_ark_store(ark_.get());
    copy("other");  // From here on the keys are kept in order, and the dictionary has to grow for another entry.
    set_attribute("domain", nullptr, 3);
    watch("domain", long_key, "watch", ARK_WATCH_SET);
    failed = run_with_failing_allocation(number,
                                         [&] { data_ark_set(ark_.get(), domain.get(), key.get(), value.get()); });
    const bool is_set = data_ark_exists(ark_.get(), domain.get(), key.get());
    EXPECT_EQ(copy("domain") == "{}", !is_set) << "allocation " << number << " fails";
    EXPECT_EQ(dirty_count(), is_set ? 1u : 0u) << "allocation " << number << " fails";
    EXPECT_EQ(has_attribute("domain", long_key, 3), is_set) << "allocation " << number << " fails";
  }
}

TEST_F(Ark, ADomainsCopyFindsTheEntryThatTookARemovedOnesPlace) {
  for (const char* key : {"a", "b", "c"}) set("domain", key, key);
  set("other", "last", "of all");
  EXPECT_EQ(copy("other"), R"({"last": "of all"})");
  remove("domain", "a");
  EXPECT_EQ(copy("other"), R"({"last": "of all"})");
  EXPECT_EQ(copy("domain"), R"({"b": "b", "c": "c"})");
}

TEST_F(Ark, AStoreLeavesOutTheEntriesWithAttribute1Or7) {
  for (const char* key : {"h", "b", "f", "d", "g", "a", "e", "c"}) set(nullptr, key, "value");
  for (const char* key : {"a", "b", "c", "d"}) set_attribute(nullptr, key, ARK_NOT_STORED);
  for (const char* key : {"e", "f"}) set_attribute(nullptr, key, ARK_ALSO_NOT_STORED);
  set_attribute(nullptr, "g", ARK_CHANGE_UNCOUNTED);
  set_attribute("no entry", nullptr, ARK_NOT_STORED);
  data_ark_store(ark_.get());
  EXPECT_EQ(stored(), R"({"-g": "value", "-h": "value"})");
}

TEST_F(Ark, ASetNotifiesTheWatchesOfTheKeyAndThenOfItsDomain) {
  for (const char* key : {"key", static_cast<const char*>(nullptr)}) {
    const std::string of = key == nullptr ? " of domain" : " of key";
    watch("domain", key, "change" + of, ARK_WATCH_CHANGE);
    watch("domain", key, "set" + of, ARK_WATCH_SET);
    watch("domain", key, "removal" + of, ARK_WATCH_REMOVE);
  }
  set("domain", "key", "1");
  expect_notified("a first set", {"change of key", "change of domain", "set of key", "set of domain"});
  set("domain", "key", "1");
  expect_notified("a set of an equal value", {"set of key", "set of domain"});
  set("domain", "key", "2");
  expect_notified("a set of another value", {"change of key", "change of domain", "set of key", "set of domain"});
  remove("domain", "key");
  expect_notified("a removal", {"removal of key"});
  remove("domain", "key");
  expect_notified("a removal of nothing", {});
  set("domain", nullptr, "1");
  expect_notified("a set of the domain's own key",
                  {"change of domain", "change of domain", "set of domain", "set of domain"});
}

TEST_F(Ark, ASecondWatchReplacesTheFirstButNotWhatWasScheduled) {
  watch("domain", "key", "first", ARK_WATCH_SET);
  set("domain", "key", "1");
  watch("domain", "key", "second", ARK_WATCH_SET);
  expect_notified("a set before the second watch", {"first"});
  set("domain", "key", "1");
  expect_notified("a set after it", {"second"});
}

TEST_F(Ark, WhatCannotBeRegisteredIsRefused) {
  const auto key = text("key");
  EXPECT_EQ(data_ark_watch(ark_.get(), nullptr, key.get(), nullptr, ARK_WATCH_SET), -1) << "no name";
  EXPECT_EQ(data_ark_watch_block(ark_.get(), nullptr, key.get(), {}, ARK_WATCH_SET), 0) << "an empty callback";
  set(nullptr, "key", "1");
  expect_notified("a set", {});
}

TEST_F(Ark, AFailedStoreLeavesTheOldFileAndTheNextOneStoresAll) {
  const std::string temporary = ark_path + std::string(".XXXXXX");
  set(nullptr, "key", "old");
  data_ark_store(ark_.get());
  set(nullptr, "key", "new");
  fs::create_directory(at(temporary));
  data_ark_store(ark_.get());
  EXPECT_EQ(log().back(), "data_ark_store: Could not store " + temporary);
  EXPECT_EQ(dirty_count(), 0u);
  EXPECT_EQ(stored(), R"({"-key": "old"})");
  fs::remove(at(temporary));

  fs::remove(path_);
  fs::create_directories(path_ + "/in the way");
  data_ark_store(ark_.get());
  EXPECT_EQ(log().back(), "data_ark_store: Problem renaming " + temporary + ": Is a directory");
  EXPECT_EQ(data_ark_status(ark_.get()).failed_stores, 2u);
  remove(nullptr, "key");
  data_ark_store(ark_.get());
  EXPECT_EQ(data_ark_status(ark_.get()).failed_stores, 3u) << "nothing is left, and the file cannot be deleted";

  fs::remove_all(path_);
  set(nullptr, "key", "new");
  data_ark_store(ark_.get());
  EXPECT_EQ(stored(), R"({"-key": "new"})");
}

TEST_F(Ark, AnUnreadableFileIsKeptUnderTheFirstFreeName) {
  ASSERT_EQ(store_dict(path_.c_str(), *create_array()), 0);
  const std::pair<std::string, std::string> kept[] = {{path_ + ".unreadable", "no property list"},
                                                      {path_ + ".unreadable.1", read_file(path_)},
                                                      {path_ + ".unreadable.2", ""}};
  for (const auto& [name, bytes] : kept) {
    write_file(path_, bytes);
    ark_ = data_ark_load();
    EXPECT_EQ(log().back(), std::string("data_ark_load: Could not load ") + ark_path);
    data_ark_store(ark_.get());
  }
  for (const auto& [name, bytes] : kept) EXPECT_EQ(read_file(name), bytes) << name;
}

// Start-up stores at once, and by then the fault may be gone.
TEST_F(Ark, AStoreOfNothingLeavesAFileThatCouldNeitherBeReadNorRenamed) {
  set(nullptr, "key", "old");
  data_ark_store(ark_.get());
  platform_.locate_error = EIO;
  ark_ = data_ark_load();
  platform_.locate_error = 0;
  data_ark_store(ark_.get());
  EXPECT_EQ(stored(), R"({"-key": "old"})");

  set(nullptr, "key", "new");
  data_ark_store(ark_.get());
  remove(nullptr, "key");
  data_ark_store(ark_.get());
  EXPECT_FALSE(fs::exists(path_)) << "the new file was the ark's own";
}

TEST_F(Ark, NothingBehindALinkIsTouched) {
  set(nullptr, "key", "old");
  data_ark_store(ark_.get());
  const std::string before = read_file(path_), library = fs::path(directory_).parent_path();
  fs::rename(library, at("/elsewhere"));
  fs::create_directory_symlink(at("/elsewhere"), library);

  ark_ = data_ark_load();
  data_ark_store(ark_.get());
  set(nullptr, "key", "new");
  log();
  data_ark_store(ark_.get());
  EXPECT_EQ(log(), Lines{std::string("data_ark_store: Could not store ") + ark_path + ".XXXXXX"});
  EXPECT_EQ(read_file(path_), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 1) << "files in the directory";
}

TEST_F(Ark, ALoadThatRunsOutOfMemoryKeepsTheFile) {
  set(nullptr, "key", "value");
  data_ark_store(ark_.get());
  const std::string file = read_file(path_);
  bool failed = true;
  for (int number = 0; failed; ++number) {
    failed = run_with_failing_allocation(number, [&] { ark_ = data_ark_load(); });
    if (fs::exists(path_ + ".unreadable")) fs::rename(path_ + ".unreadable", path_);
    EXPECT_EQ(read_file(path_), file) << "the file is lost where allocation " << number << " fails";
  }
}

}  // namespace
}  // namespace corvane
