#include "platform/process/start_up.h"

#include <climits>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/files.h"

namespace corvane {

namespace {

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool is_resolved_folder(const std::string& path) {
  char resolved[PATH_MAX];
  struct stat status {};
  return path.front() == '/' && path.back() != '/' && realpath(path.c_str(), resolved) != nullptr &&
         path == resolved && stat(resolved, &status) == 0 && S_ISDIR(status.st_mode);
}

bool open_standard_descriptors() {
  for (;;) {
    const int descriptor = open("/dev/null", O_RDWR);
    if (descriptor < 0) return false;
    if (descriptor > STDERR_FILENO) return close(descriptor) == 0;
  }
}

// A parent may have blocked what ends the daemon, and a process inherits that.
void unblock_end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// The lock lasts as long as the descriptor, which is never closed.
bool take_lock(const std::string& path, std::string& refusal) {
  const int lock = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (lock < 0) {
    refusal = "could not open " + path + ": " + std::strerror(errno);
    return false;
  }
  if (flock(lock, LOCK_EX | LOCK_NB) == 0) return true;
  refusal = errno == EWOULDBLOCK ? "another daemon holds " + path
                                 : "could not lock " + path + ": " + std::strerror(errno);
  close(lock);
  return false;
}

}  // namespace

std::optional<Environment> read_environment(std::string& refusal) {
  Environment environment;
  environment.root = variable("CORVANE_ROOT");
  environment.profile = variable("CORVANE_PROFILE");
  const std::string_view device = variable("CORVANE_PLATFORM");
  const std::string_view log_to_stderr = variable("CORVANE_LOG_STDERR");
  environment.simulated = device == "simulated";
  environment.log_to_stderr = log_to_stderr == "1";

  if (environment.root.size() > root_limit) {
    refusal = "CORVANE_ROOT must not be longer than " + std::to_string(root_limit) + " bytes";
  } else if (!environment.root.empty() && !is_resolved_folder(environment.root)) {
    refusal =
        "CORVANE_ROOT must be an absolute, fully resolved folder without a slash at its end: " + environment.root;
  } else if (!device.empty() && device != "linux" && device != "simulated") {
    refusal = "CORVANE_PLATFORM must be linux or simulated: " + std::string(device);
  } else if (environment.simulated && environment.profile.empty()) {
    refusal = "CORVANE_PLATFORM=simulated needs CORVANE_PROFILE, the profile's file";
  } else if (!log_to_stderr.empty() && log_to_stderr != "0" && log_to_stderr != "1") {
    refusal = "CORVANE_LOG_STDERR must be 0 or 1: " + std::string(log_to_stderr);
  } else {
    return environment;
  }
  return std::nullopt;
}

// By default malloc(3) soon keeps the memory of large answers instead of returning it. The memory of one answer it
// should keep while clients ask, so that it is not paged in anew for each: the listeners have it returned when
// they have been idle for a moment. That returns the end of the heap only in the first arena, so there is no other
// one. Above 24 MiB paging in costs little beside sending.
void set_memory_thresholds() {
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, 24 << 20);
  mallopt(M_TRIM_THRESHOLD, 24 << 20);
}

bool prepare_process(const std::string& root, std::string& refusal) {
  umask(022);
  if (!open_standard_descriptors()) {
    refusal = std::string("could not open /dev/null: ") + std::strerror(errno);
    return false;
  }
  for (const int signal : {SIGHUP, SIGPIPE, SIGXFSZ}) std::signal(signal, SIG_IGN);
  unblock_end_signals();
  set_memory_thresholds();
  return take_lock(root + "/run/corvaned/corvaned.lock", refusal);
}

}  // namespace corvane
