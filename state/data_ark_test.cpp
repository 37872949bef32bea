#include "state/data_ark.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <new>
#include <random>
#include <stdarg.h>
#include <sys/stat.h>
#include <unistd.h>

#include "plist/reader.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace {

// Counts down to the one allocation that fails; negative: none does.
int allocations_left = -1;

// The name of the system call that fails, and how; "short" writes half.
std::string failing_call;
int failing_errno = 0;

bool fails(const char* call) {
  if (failing_call != call) return false;
  errno = failing_errno;
  return true;
}

template <class Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void* operator new(size_t size) {
  void* memory = allocations_left >= 0 && allocations_left-- == 0 ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
  if (failing_call == "short write") size /= 2;
  return fails("write") ? -1 : real<decltype(write)>("write")(descriptor, bytes, size);
}
extern "C" int rename(const char* from, const char* to) noexcept {
  return fails("rename") ? -1 : real<decltype(rename)>("rename")(from, to);
}
extern "C" int fstat(int descriptor, struct stat* status) noexcept {
  return fails("fstat") ? -1 : real<decltype(fstat)>("fstat")(descriptor, status);
}
extern "C" int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  const bool is_temporary = std::string_view(path).ends_with(".XXXXXX");
  return is_temporary && fails("open") ? -1 : real<decltype(open)>("open")(path, flags, mode);
}

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
  ~Ark() override { failing_call.clear(); }

  int set(Name domain, Name key, Ref<plist::Value> value) {
    return data_ark_set(ark_.get(), domain, key, value.get());
  }
  int set(Name domain, Name key, const char* value) { return set(domain, key, Ref<plist::Value>(text(value))); }
  Ref<plist::Value> copy(Name domain, Name key) { return data_ark_copy(ark_.get(), domain, key); }
  int remove(Name domain, Name key) { return data_ark_remove(ark_.get(), domain, key); }
  int mark(Name domain, Name key, unsigned index) {
    return data_ark_set_attribute(ark_.get(), domain, key, index);
  }
  bool has(Name domain, Name key, unsigned index) {
    return data_ark_has_attribute(ark_.get(), domain, key, index);
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
  Ref<plist::Value> stored() { return fs::exists(path_) ? load_dict(path_.c_str()) : nullptr; }

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
      {"attribute 1 set", [&] { return mark("d", "k", 1), set("d", "k", "3"); }, changed, 0, {}},
      {"attribute 1 removed", [&] { return remove("d", "k"); }, {"remove key"}, 0, {}},
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

TEST_F(Ark, AttributesAreInheritedByNewKeysOnlyAndGoWithARemoval) {
  set("d", "old", "1");
  for (const unsigned index : {0u, 1u, 8u}) EXPECT_EQ(mark("d", nullptr, index), 0);
  set("d", "old", "2");
  set("d", "new", "1");
  set("e", "new", "1");
  for (unsigned index = 0; index < 9; ++index) {
    EXPECT_EQ(has("d", "new", index), index == 0 || index == 1 || index == 8) << index;
    EXPECT_FALSE(has("d", "old", index) || has("e", "new", index)) << index;
  }
  remove("d", "new");
  EXPECT_FALSE(has("d", "new", 0));
  EXPECT_EQ(mark("d", "k", 9), -1);
  EXPECT_FALSE(has("d", "k", 9));
  const auto clear = [&](Name key, unsigned index) {
    return data_ark_clear_attribute(ark_.get(), Name("d"), key, index);
  };
  EXPECT_EQ(clear("k", 9), -1);
  EXPECT_EQ(clear("k", 3), 0);
  EXPECT_EQ(clear(nullptr, 1), 0);
  EXPECT_FALSE(has("d", nullptr, 1));
}

TEST_F(Ark, WatchesAreRegisteredInOrderUntilOneFails) {
  const unsigned all = ARK_WATCH_SET | ARK_WATCH_REMOVE | ARK_WATCH_CHANGE;
  const Name d("d"), k("a key too long to be kept without an allocation of its own");
  const auto name = text("n"), one = text("1");
  const auto events_registered = [&](int failing, int& result) {
    const DataArk ark = data_ark_load();
    allocations_left = failing;
    result = data_ark_watch(ark.get(), d, k, name, all);
    allocations_left = -1;
    data_ark_set(ark.get(), d, k, one.get());
    const size_t by_set = platform_.posted.size();
    data_ark_remove(ark.get(), d, k);
    return std::make_pair(by_set, std::exchange(platform_.posted, {}).size() - by_set);
  };
  // The allocations go up through the three registrations; none may be made after one that failed.
  std::vector<std::pair<size_t, size_t>> seen;
  for (int failing = 0, result = -1; result != 0; ++failing) {
    const auto registered = events_registered(failing, result);
    if (seen.empty() || seen.back() != registered) seen.push_back(registered);
    ASSERT_LT(failing, 100);
  }
  EXPECT_EQ(seen, (std::vector<std::pair<size_t, size_t>>{{0, 0}, {1, 0}, {2, 0}, {2, 1}}));

  struct Uncopyable {
    Uncopyable() = default;
    Uncopyable(const Uncopyable& other) : armed(other.armed) {
      if (*armed) throw std::bad_alloc();
    }
    void operator()() const {}
    std::shared_ptr<bool> armed = std::make_shared<bool>(false);
  };
  const Uncopyable block;
  const std::function<void()> callback = block;
  *block.armed = true;
  EXPECT_EQ(data_ark_watch_block(ark_.get(), d, k, callback, all), 0);
  set("d", k, "1");
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

TEST_F(Ark, ComposedKeysAndDomainCopies) {
  EXPECT_FALSE(copy("d", nullptr));
  set("a", "b-c", "1");
  EXPECT_EQ(copy("a-b", "c").get(), copy("a", "b-c").get());
  set(nullptr, nullptr, "bare");
  set(nullptr, "k", "no domain");
  const Ref<plist::Value> bare = copy(nullptr, nullptr);
  EXPECT_EQ(as_dictionary(bare.get())->size(), 2u);
  EXPECT_EQ(as_string(as_dictionary(bare.get())->get(""))->view(), "bare");
  EXPECT_EQ(as_dictionary(copy("none", nullptr).get())->size(), 0u);

  // The order that the first copy built follows every later set and removal.
  std::map<std::string, std::string> model[3];
  std::mt19937 random(1);
  for (int i = 0; i < 3000; ++i) {
    const auto domain = random() % 3;
    const std::string key = std::to_string(random() % 40), value = std::to_string(i);
    const char* name = domain == 0 ? "x" : domain == 1 ? "x-y" : "z";
    if (random() % 3 != 0) {
      set(name, key.c_str(), value.c_str());
      model[domain][key] = value;
    } else {
      remove(name, key.c_str());
      model[domain].erase(key);
    }
    const Ref<plist::Value> copied = copy("z", nullptr);
    const plist::Dictionary& entries = *as_dictionary(copied.get());
    ASSERT_EQ(entries.size(), model[2].size());
    for (const auto& [k, v] : model[2]) ASSERT_EQ(as_string(entries.get(k))->view(), v);
  }
  EXPECT_EQ(as_dictionary(copy("x", nullptr).get())->size(), model[0].size() + model[1].size());
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
  EXPECT_EQ(as_number(copy(nullptr, "k").get())->type(), plist::Number::Type::int32);
  data_ark_set_int64(ark_.get(), nullptr, k, -3);
  EXPECT_EQ(as_number(copy(nullptr, "k").get())->type(), plist::Number::Type::int64);
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

TEST_F(Ark, TheFileHoldsWhatIsNotTransient) {
  const Ref<plist::MutableDictionary> nested = create_dict();
  nested->set("Inner", create_array());
  set("d", "kept", nested);
  set("d", "one", "1");
  set("d", "seven", "7");
  mark("d", "one", 1);
  mark("d", "seven", 7);
  mark("d", "kept", 5);
  data_ark_store(ark_.get());
  EXPECT_EQ(data_ark_dirty_count(ark_.get()), 0u);
  EXPECT_EQ(as_dictionary(stored().get())->size(), 1u);
  ark_ = data_ark_load();
  EXPECT_TRUE(plist::equal(copy("d", "kept").get(), nested.get()));
  EXPECT_TRUE(as_dictionary(copy("d", "kept").get())->get("Inner")->is_mutable());
  EXPECT_FALSE(has("d", "kept", 5));
  mark("d", "kept", 1);
  data_ark_store(ark_.get());
  EXPECT_FALSE(fs::exists(path_));

  for (const char* vector : {"/plist/testdata/ark.xml.plist", "/plist/testdata/ark.bin.plist"}) {
    fs::copy_file(CORVANE_SOURCE_DIR + std::string(vector), path_, fs::copy_options::overwrite_existing);
    ark_ = data_ark_load();
    EXPECT_EQ(as_string(copy("com.norvane.mobile.backup", "Version").get())->view(), "9.1");
    EXPECT_EQ(data_ark_get_int(ark_.get(), Name("com.norvane.mobile.backup"), nullptr), 7);
  }
}

// A step of a store fails, as it does on a full disk, a broken or a read-only one.
TEST_F(Ark, AFailedStoreLeavesTheOldFileAndTheNextOneStoresAll) {
  set("d", "k", "old");
  data_ark_store(ark_.get());
  const size_t descriptors = testing::open_descriptors();
  const std::string not_stored = "data_ark_store: Could not store " + path_ + ".XXXXXX";
  for (const char* call : {"open", "locate", "fstat", "write", "short write", "rename"}) {
    for (const int error : {ENOSPC, EIO, EACCES}) {
      set("d", "k", "new");
      platform_.take_lines();
      failing_call = call;
      failing_errno = error;
      platform_.locate_error = failing_call == "locate" ? error : 0;
      data_ark_store(ark_.get());
      failing_call.clear();
      platform_.locate_error = 0;
      const std::string renaming =
          "data_ark_store: Problem renaming " + path_ + ".XXXXXX: " + std::string(std::strerror(error));
      const Texts lines = platform_.take_texts();
      EXPECT_EQ(lines.back(), std::string(call) == "rename" ? renaming : not_stored) << call;
      EXPECT_EQ(data_ark_dirty_count(ark_.get()), 0u);
      EXPECT_EQ(as_string(as_dictionary(stored().get())->get("d-k"))->view(), "old") << call;
      EXPECT_EQ(testing::open_descriptors(), descriptors) << call;
      set("d", "k", "old");
      data_ark_store(ark_.get());
      EXPECT_TRUE(stored()) << call;
    }
  }
  // An empty state directory in place of the folder that was there: nothing to write into.
  fs::remove_all(folder_);
  data_ark_store(ark_.get());
  fs::create_directories(folder_);
  set("d", "k", "again");
  data_ark_store(ark_.get());
  EXPECT_EQ(as_string(as_dictionary(stored().get())->get("d-k"))->view(), "again");
}

TEST_F(Ark, WhatCannotBeReadIsKeptAside) {
  const auto aside = [this](int i) { return path_ + ".unreadable" + (i == 0 ? "" : "." + std::to_string(i)); };
  const Ref<plist::MutableArray> array = create_array();
  for (int i = 0; i <= 10; ++i) {
    if (i % 2 == 0) {
      write_file(path_, "file " + std::to_string(i));
    } else {
      ASSERT_EQ(store_dict(path_.c_str(), *array), 0);
    }
    platform_.take_lines();
    const std::string bytes = read_file(path_);
    ark_ = data_ark_load();
    EXPECT_EQ(platform_.take_texts().at(i % 2 == 0 ? 1 : 0), "data_ark_load: Could not load " + path_);
    data_ark_store(ark_.get());
    EXPECT_EQ(read_file(aside(i)), bytes) << i;
  }
  EXPECT_EQ(read_file(aside(0)), "file 0");
  set("d", "k", "1");
  data_ark_store(ark_.get());
  EXPECT_TRUE(stored());

  // What is no file of ours stays where it is.
  const std::function<void()> plants[] = {[&] { fs::create_symlink("nowhere", path_); },
                                          [&] { mkfifo(path_.c_str(), 0600); },
                                          [&] { fs::create_directory(path_); }};
  for (int i = 0; i <= 10; ++i) fs::remove(aside(i));
  for (const auto& plant : plants) {
    fs::remove(path_);
    plant();
    ark_ = data_ark_load();
    EXPECT_NE(fs::symlink_status(path_).type(), fs::file_type::not_found);
    EXPECT_FALSE(fs::exists(aside(0)));
  }
}

TEST_F(Ark, NoCutAndNoFlippedBitBringsItDown) {
  set("d", "k", "value");
  data_ark_set_int(ark_.get(), Name("d"), nullptr, 300);
  data_ark_store(ark_.get());
  const std::string whole = read_file(path_);
  size_t unreadable = 0;
  const auto try_file = [&](const std::string& bytes) {
    write_file(path_, bytes);
    ark_ = data_ark_load();
    const std::string aside = path_ + ".unreadable";
    if (copy(nullptr, nullptr)) return;
    ++unreadable;
    ASSERT_EQ(read_file(aside), bytes);
    fs::remove(aside);
  };
  for (size_t length = 0; length < whole.size(); ++length) try_file(whole.substr(0, length));
  EXPECT_EQ(unreadable, whole.size());
  for (size_t bit = 0; bit < 8 * whole.size(); ++bit) {
    std::string flipped = whole;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << (bit % 8)));
    try_file(flipped);
  }
  EXPECT_GT(unreadable, 2 * whole.size());
}

}  // namespace
}  // namespace corvane
