#include "tests/support/test_platform.h"

#include <climits>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace corvane::testing {

namespace fs = std::filesystem;

TestPlatform& TestPlatform::installed() {
  static TestPlatform test_platform;
  return test_platform;
}

TestPlatform& TestPlatform::fresh() {
  TestPlatform& test_platform = installed();
  fs::remove_all(test_platform.root_);
  fs::create_directories(test_platform.root_ + "/private/var/mobile/Library/Logs");
  fs::create_directories(test_platform.root_ + "/private/var/mobile/Library/Preferences");
  fs::create_directories(test_platform.root_ + "/var");
  fs::create_directories(test_platform.root_ + "/run/corvaned");
  fs::create_directory_symlink("../private/var/mobile", test_platform.root_ + "/var/mobile");
  test_platform.properties.clear();
  test_platform.properties_asked = 0;
  test_platform.level = no_level;
  test_platform.locate_error = 0;
  test_platform.posted.clear();
  test_platform.preference_values.clear();
  test_platform.registry.clear();
  test_platform.telephony_service = &test_platform.no_telephony_;
  test_platform.main_queue_.waiting.clear();
  test_platform.take_lines();
  return test_platform;
}

TestPlatform::TestPlatform() {
  char name[] = "/tmp/corvane-test.XXXXXX";
  if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
  base_ = fs::canonical(name);
  root_ = base_ + "/root";
  install_platform(this);
}

TestPlatform::~TestPlatform() {
  std::error_code ignored;
  fs::remove_all(base_, ignored);
}

std::vector<TestPlatform::Line> TestPlatform::take_lines() {
  const std::lock_guard lock(lines_mutex_);
  return std::exchange(lines_, {});
}

std::vector<std::string> TestPlatform::take_texts() {
  std::vector<std::string> texts;
  for (Line& line : take_lines()) texts.push_back(std::move(line.text));
  return texts;
}

void TestPlatform::prepare_to_die() {
  fs::remove_all(base_);
  dying_ = true;
}

void TestPlatform::run_main_queue() {
  for (const std::function<void()>& work : std::exchange(main_queue_.waiting, {})) work();
}

Logger::Handle* TestPlatform::open(const char*, int) {
  ++handles_opened;
  // An opaque handle is never looked into; any address will do.
  return refuse_log_handle ? nullptr : reinterpret_cast<Handle*>(this);
}

void TestPlatform::enable_disk_copy(Handle*, const char* path, int files, size_t bytes) {
  disk_copies.push_back(std::string(path) + " " + std::to_string(files) + " " + std::to_string(bytes));
}

int TestPlatform::configured_level(const char*) { return level; }

void TestPlatform::write(Handle*, int line_level, const char*, const char*, const plist::String& line) {
  const std::lock_guard lock(lines_mutex_);
  if (dying_) std::fprintf(stderr, "%d %s\n", line_level, line.c_string());
  errno = ENOSPC;  // a logger whose disk is full; nobody's failure but its own
  lines_.push_back({line_level, std::string(line.view())});
}

int TestPlatform::open(const char* path, int flags, mode_t mode, int) {
  return ::open(path, flags | O_CLOEXEC, mode);
}

int TestPlatform::locate(int descriptor, char (&path)[path_limit + 1]) {
  if (locate_error != 0) {
    errno = locate_error;
    return -1;
  }
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), path, path_limit);
  if (length < 0) return -1;
  path[length] = '\0';
  return 0;
}

plist::Ref<plist::Value> TestPlatform::copy_value(std::string_view domain, std::string_view key) {
  const auto found = preference_values.find(std::string(domain) + "/" + std::string(key));
  return found == preference_values.end() ? nullptr : found->second;
}

bool TestPlatform::has_node(std::string_view path) {
  const auto next = registry.lower_bound(path);
  return next != registry.end() && next->first.starts_with(path);
}

plist::Ref<plist::Value> TestPlatform::copy_property(std::string_view path, std::string_view key) {
  const auto found = registry.find(std::string(path) + "/" + std::string(key));
  return found == registry.end() ? nullptr : found->second;
}

plist::Ref<plist::Value> TestPlatform::copy_answer(const plist::String& name) {
  ++properties_asked;
  const auto found = properties.find(name.view());
  return found == properties.end() ? nullptr : found->second;
}

size_t open_descriptors() {
  const fs::directory_iterator descriptors("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors))) - 1;
}

void write_file(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace corvane::testing
