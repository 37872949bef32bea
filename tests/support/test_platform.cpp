#include "tests/support/test_platform.h"

#include <fstream>
#include <stdexcept>
#include <unistd.h>

namespace corvane::testing {

namespace fs = std::filesystem;

TestPlatform& TestPlatform::installed() {
  static TestPlatform test_platform;
  return test_platform;
}

TestPlatform& TestPlatform::fresh() {
  TestPlatform& test_platform = installed();
  fs::remove_all(test_platform.root_);
  make_image_folders(test_platform.root_);
  static_cast<TestPlatformState&>(test_platform) = {};
  test_platform.main_queue_.waiting.clear();
  test_platform.take_lines();
  return test_platform;
}

TestPlatform::TestPlatform() : base_(make_temporary_folder()), root_(base_ + "/root") {
  request_queue_.at_once = true;
  install_platform(this);
  install_vault(&vault_);
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

void TestPlatform::write(Handle*, int line_level, const char*, const char*, const plist::String& line) {
  const std::lock_guard lock(lines_mutex_);
  if (dying_) std::fprintf(stderr, "%d %s\n", line_level, line.c_string());
  errno = ENOSPC;  // a logger whose disk is full; nobody's failure but its own
  lines_.push_back({line_level, std::string(line.view())});
}

int TestPlatform::locate(int descriptor, char (&path)[path_limit + 1]) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), path, path_limit);
  path[std::max(ssize_t{0}, length)] = '\0';
  if (locate_error != 0) errno = locate_error;
  return locate_error != 0 || length < 0 ? -1 : 0;
}

std::string make_temporary_folder() {
  std::string name = fs::temp_directory_path() / "corvane-test.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  return fs::canonical(name);
}

void make_image_folders(const std::string& root) {
  for (const char* folder :
       {"/private/var/mobile/Library/Logs", "/private/var/mobile/Library/Preferences", "/run/corvaned", "/var"}) {
    fs::create_directories(root + folder);
  }
  fs::create_directory_symlink("../private/var/mobile", root + "/var/mobile");
}

size_t open_descriptors(const std::string& process) {
  const fs::directory_iterator descriptors("/proc/" + process + "/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

void write_file(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace corvane::testing
