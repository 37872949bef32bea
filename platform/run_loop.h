#pragma once

#include <functional>

namespace corvane {

/// Work that runs on one thread, one piece at a time, in the order in which it was submitted.
class WorkQueue {
 public:
  virtual ~WorkQueue() = default;

  /// Any thread. Returns at once; the work runs later. Before `create` the request queue does the work before this
  /// returns, because start-up runs on one thread.
  virtual void submit(std::function<void()> work) = 0;

  /// Whether the queue's work runs on the calling thread. Before `create` the request queue's thread is the one
  /// that starts the daemon.
  virtual bool is_current() const = 0;

  /// Starts the queue's thread, named `label`. Main thread, once. The main queue has its thread already. Throws
  /// std::system_error where there can be no thread.
  virtual void create(const char* label) = 0;
};

/// The main thread's event loop.
class RunLoop {
 public:
  virtual ~RunLoop() = default;

  /// Runs until the process is asked to end (SIGTERM, SIGINT). Main thread.
  virtual void run() = 0;

  /// Owns the descriptor from now on, and calls `readable` on the loop whenever there is something to read, for
  /// the life of the loop. Main thread. Throws std::system_error where the system refuses; the descriptor is still
  /// the caller's then.
  virtual void watch(int descriptor, std::function<void()> readable) = 0;
};

}  // namespace corvane
