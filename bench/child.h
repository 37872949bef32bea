#pragma once

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench/measure.h"

namespace corvane::bench {

/// A program that is ended with this object, and with this process.
class Child {
 public:
  /// Its standard error can be silenced.
  explicit Child(std::vector<std::string> arguments, const std::map<std::string, std::string>& environment = {},
                 bool quiet = false) {
    auto* shared = static_cast<steady_clock::time_point*>(mmap(
        nullptr, sizeof(steady_clock::time_point), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    must(shared != MAP_FAILED, "mmap");
    pid_ = fork();
    must(pid_ >= 0, "fork");
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
      std::vector<char*> list;
      for (std::string& argument : arguments) list.push_back(argument.data());
      list.push_back(nullptr);
      if (quiet) dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
      *shared = steady_clock::now();
      execv(list[0], list.data());
      _exit(127);
    }
    started_ = shared;
  }
  ~Child() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    munmap(started_, sizeof *started_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  /// When exec was called.
  steady_clock::time_point started() const { return *started_; }

 private:
  pid_t pid_ = -1;
  steady_clock::time_point* started_ = nullptr;
};

}  // namespace corvane::bench
