// The job belongs to the thread from `started_` to `finished_`, and to the event loop otherwise. An empty job ends
// the thread.

#include "bus/worker.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <utility>

#include "bus/report.h"

namespace corvane::bus {

Worker::Worker(sd_event& loop) : job_ended_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  require(job_ended_ < 0 ? -errno : 0, "eventfd");
  const auto on_readable = [](sd_event_source*, int descriptor, uint32_t, void* self) {
    eventfd_t count = 0;
    eventfd_read(descriptor, &count);
    static_cast<Worker*>(self)->finish();
    return 0;
  };
  sd_event_source* source = nullptr;
  require(sd_event_add_io(&loop, &source, job_ended_, EPOLLIN, on_readable, this), "sd_event_add_io");
  source_.reset(source);
  sd_event_source_set_io_fd_own(source, 1);
  thread_ = std::thread([this] { work(); });
}

Worker::~Worker() {
  if (is_busy()) finished_.acquire();
  job_ = nullptr;
  started_.release();
  thread_.join();
}

void Worker::start(std::function<void()> job, std::function<void()> done) {
  job_ = std::move(job);
  done_ = std::move(done);
  started_.release();
}

void Worker::work() {
  for (;;) {
    started_.acquire();
    if (!job_) return;
    job_();
    finished_.release();
    eventfd_write(job_ended_, 1);
  }
}

// The job is dropped first, because `done` may start the next one.
void Worker::finish() {
  finished_.acquire();
  job_ = nullptr;
  std::exchange(done_, nullptr)();
}

}  // namespace corvane::bus
