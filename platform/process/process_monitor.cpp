#include "platform/process/process_monitor.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/descriptor.h"

namespace corvane {

namespace {

constexpr int64_t second = 1'000'000'000;

int64_t now_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * second + now.tv_nsec;
}

void read_memory(ProcessStatus& status) {
  char text[128] = "";
  const Descriptor file(open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
  if (!file.is_open() || read(file.number(), text, sizeof text - 1) <= 0) return;
  uint64_t resident = 0, of_files = 0;
  if (std::sscanf(text, "%*u %" SCNu64 " %" SCNu64, &resident, &of_files) != 2) return;
  const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  status.resident_bytes = resident * page;
  status.private_bytes = (resident - std::min(resident, of_files)) * page;
}

// The descriptor that it takes to count them is none of them.
size_t count_descriptors() {
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return 0;
  size_t count = 0;
  while (const dirent* entry = readdir(folder)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(folder);
  return count - 1;
}

}  // namespace

ProcessMonitor::ProcessMonitor() : started_since_boot_(now_of(CLOCK_BOOTTIME)), started_(now_of(CLOCK_REALTIME)) {}

ProcessStatus ProcessMonitor::status() const {
  ProcessStatus status;
  status.pid = getpid();
  const int64_t uptime = now_of(CLOCK_BOOTTIME) - started_since_boot_;
  status.uptime_seconds = static_cast<uint64_t>(uptime / second);
  // The clock may have been set since. Below a second that is the two clocks' drift, and the start stays the same.
  const int64_t moved = now_of(CLOCK_REALTIME) - uptime - started_;
  status.started = (started_ + (std::abs(moved) < second ? 0 : moved)) / second;
  read_memory(status);
  status.descriptors = count_descriptors();
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) status.descriptor_limit = limit.rlim_cur;
  return status;
}

}  // namespace corvane
