// Preloaded into a process, makes the calls fail that the FaultPlan in the file CORVANE_FAULTS names. It stands
// before the C library and therefore sees what the program and its C++ libraries call, but not what the C library
// calls within itself. Arguments and results are passed on as the registers that they come in.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include "tests/support/fault_plan.h"

namespace {

using namespace corvane::testing;
using Function = long (*)(long, long, long, long, long);

FaultPlan* plan = nullptr;

__attribute__((constructor)) void open_plan() {
  const char* path = getenv("CORVANE_FAULTS");
  const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) return;
  void* const shared = mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (shared != MAP_FAILED) plan = static_cast<FaultPlan*>(shared);
}

bool fails(Call call, const char* name) {
  if (plan == nullptr || (plan->calls & call) == 0) return false;
  const int64_t number = ++plan->seen;
  if (number < plan->first || number > plan->last) return false;
  ++plan->failed;
  strncpy(plan->name, name, sizeof plan->name - 1);
  if (plan->error == killed) raise(SIGKILL);
  errno = plan->error;
  return true;
}

std::atomic<uint64_t> wakers{0};  // the event loops' own descriptors, a bit for each

// What the event loops wake themselves up with always works: their library does not ask whether it does.
bool is_spared(std::string_view name, long a, long b, long c) {
  if (name == "write") return (wakers >> a & 1) != 0;
  return name == "epoll_ctl" && (b != EPOLL_CTL_ADD || (wakers >> c & 1) != 0);
}

// A descriptor is gone whatever close says, a message is cut by leaving out all but its first part, and timers end
// early to see how far ahead the clock is by now.
long make_call(Function real, Call kind, const char* c_name, long failure, long a, long b, long c, long d,
               long e) {
  const std::string_view name = c_name;
  const long closed = name == "close" ? real(a, b, c, d, e) : 0;
  const bool faulty = !is_spared(name, a, b, c) && fails(kind, c_name);
  if (faulty && plan->error != 0) return failure == EAGAIN ? errno : failure;
  if (name == "close") return closed;
  msghdr message;
  itimerspec timer;
  if (faulty && name == "sendmsg") {
    message = *reinterpret_cast<msghdr*>(b);
    message.msg_iovlen = 1;
    b = reinterpret_cast<long>(&message);
  } else if (faulty) {
    c = std::max(1L, c / 2);
  } else if (name == "timerfd_settime") {
    timer = *reinterpret_cast<itimerspec*>(c);
    if (timer.it_value.tv_sec > 0 || timer.it_value.tv_nsec > 20'000'000) timer.it_value = {0, 20'000'000};
    c = reinterpret_cast<long>(&timer);
  }
  const long result = real(a, b, c, d, e);
  if (name == "eventfd") wakers |= uint64_t{1} << result;
  if (name == "pipe") wakers |= uint64_t{1} << *reinterpret_cast<int*>(a);
  if (name == "clock_gettime" && a == CLOCK_MONOTONIC && plan != nullptr) {
    reinterpret_cast<timespec*>(b)->tv_sec += plan->seconds_ahead;
  }
  return result;
}

}  // namespace

extern "C" {

#define FAULTY(call, failure, name)                                               \
  long faulty_##name(long a, long b, long c, long d, long e) asm(#name);          \
  long faulty_##name(long a, long b, long c, long d, long e) {                    \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name)); \
    return make_call(real, call, #name, failure, a, b, c, d, e);                  \
  }
#define OPENING(name) FAULTY(opening, -1, name)
#define NAMING(name) FAULTY(naming, -1, name)
#define MANAGING(name) FAULTY(managing, -1, name)
#define MOVING(name) FAULTY(moving, -1, name)
#define TIMING(name) FAULTY(Call{0}, 0, name)

// clang-format off
OPENING(open) OPENING(socket) OPENING(accept) OPENING(epoll_create1) OPENING(eventfd) OPENING(pipe)
OPENING(timerfd_create) OPENING(inotify_init1) FAULTY(opening, 0, fopen)
NAMING(stat) NAMING(lstat) NAMING(mkdir) NAMING(chmod) NAMING(rename) NAMING(renameat2) NAMING(unlink) NAMING(remove)
NAMING(truncate) NAMING(readlink) NAMING(bind) NAMING(connect) NAMING(inotify_add_watch) FAULTY(naming, 0, realpath)
MANAGING(fstat) MANAGING(fstatvfs) MANAGING(fgetxattr) MANAGING(fchmod) MANAGING(flock) MANAGING(listen)
MANAGING(epoll_ctl) MANAGING(close) FAULTY(managing, EAGAIN, pthread_create)
MOVING(read) MOVING(write) MOVING(recv) MOVING(send) MOVING(sendmsg) FAULTY(moving, 0, fwrite)
TIMING(clock_gettime) TIMING(timerfd_settime)
FAULTY(allocating, 0, malloc) FAULTY(allocating, 0, realloc) FAULTY(allocating, 0, aligned_alloc)
// clang-format on

}  // extern "C"
