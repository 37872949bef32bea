#pragma once

#include <functional>

namespace corvane {

/// Work that runs in the order given, one piece at a time, on one thread.
class WorkQueue {
 public:
  virtual ~WorkQueue() = default;

  /// Any thread. Never waits for the work, but for the request queue before it is created: start-up runs
  /// on one thread, and the work is done before this returns.
  virtual void submit(std::function<void()> work) = 0;

  /// Whether the calling thread is the one that the queue's work runs on; before the request queue is created,
  /// the one that starts the daemon.
  virtual bool is_current() const = 0;

  /// Gives the queue its thread, named `label`. Once, on the main thread; the main queue needs none.
  virtual void create(const char* label) = 0;
};

/// The main thread's event loop.
class RunLoop {
 public:
  virtual ~RunLoop() = default;

  /// Runs until the process is asked to end (SIGTERM, SIGINT). Main thread.
  virtual void run() = 0;

  /// Takes over the descriptor and calls `readable` on the loop whenever it has something to read, for the
  /// life of the loop. Main thread. Throws std::system_error, and leaves the descriptor to the caller, where the
  /// system refuses.
  virtual void watch(int descriptor, std::function<void()> readable) = 0;
};

}  // namespace corvane
