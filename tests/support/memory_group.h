#pragma once

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "tests/support/test_platform.h"

namespace corvane::testing {

/// The number behind `label` in a file, 0 where there is none.
inline size_t number_in(const std::string& path, const std::string& label) {
  const std::string text = "\n" + read_file(path);
  const size_t found = text.find("\n" + label);
  return found == std::string::npos ? 0 : std::strtoull(text.c_str() + found + 1 + label.size(), nullptr, 10);
}

/// A control group in which the kernel accounts what it holds for the daemon, where one can be made.
class MemoryGroup {
 public:
  explicit MemoryGroup(pid_t daemon) {
    const std::string name = "/corvane-hostile-load-" + std::to_string(getpid());
    for (const std::string folder : {"/sys/fs/cgroup", "/sys/fs/cgroup/memory"}) {
      if (mkdir((folder + name).c_str(), 0755) != 0) continue;
      folder_ = folder + name;
      if (access((folder_ + "/memory.stat").c_str(), R_OK) == 0) break;
      rmdir(std::exchange(folder_, "").c_str());
    }
    if (folder_.empty()) return;
    is_second_version_ = access((folder_ + "/memory.max").c_str(), R_OK) == 0;
    write_file(folder_ + "/cgroup.procs", std::to_string(daemon));
  }
  ~MemoryGroup() { rmdir(folder_.c_str()); }
  MemoryGroup(const MemoryGroup&) = delete;
  MemoryGroup& operator=(const MemoryGroup&) = delete;

  bool exists() const { return !folder_.empty(); }
  void set_limit(size_t bytes) const {
    if (!exists()) return;
    write_file(folder_ + (is_second_version_ ? "/memory.max" : "/memory.limit_in_bytes"), std::to_string(bytes));
  }
  size_t kernel_bytes() const {
    if (!exists()) return 0;
    return is_second_version_ ? number_in(folder_ + "/memory.stat", "kernel ")
                              : number_in(folder_ + "/memory.kmem.usage_in_bytes", "");
  }

 private:
  std::string folder_;
  bool is_second_version_ = false;
};

}  // namespace corvane::testing
