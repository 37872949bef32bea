#pragma once

#include <functional>
#include <semaphore>
#include <systemd/sd-event.h>
#include <thread>

#include "bus/sd_pointers.h"

namespace corvane::bus {

/// A thread that does what blocks, one job at a time, for an event loop.
class Worker {
 public:
  /// Throws std::system_error where the system refuses a thread.
  explicit Worker(sd_event& loop);
  /// Waits for the job that is running; its `done` is not called any more.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Runs `job` on the thread, and then `done` in the event loop. Precondition: not busy.
  void start(std::function<void()> job, std::function<void()> done);
  /// Whether a job is running, or its `done` has still to be called.
  bool is_busy() const { return job_ != nullptr; }

 private:
  void work();
  void finish();

  std::function<void()> job_;
  std::function<void()> done_;
  int job_ended_;  ///< an eventfd(2), which the source closes
  SourcePtr source_;
  std::binary_semaphore started_{0};
  std::binary_semaphore finished_{0};
  std::thread thread_;
};

}  // namespace corvane::bus
