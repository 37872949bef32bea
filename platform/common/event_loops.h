#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include <functional>
#include <optional>
#include <thread>

#include "platform/run_loop.h"

/// The two event loops of the process: the main thread's, and the request queue's on its own thread.
namespace corvane {

class MainLoop final : public RunLoop, public WorkQueue {
 public:
  MainLoop();

  void run() override;
  void submit(std::function<void()> work) override;
  void create(const char*) override {}

 private:
  asio::io_context context_{1};
  asio::signal_set end_signals_{context_};
};

class RequestQueue final : public WorkQueue {
 public:
  RequestQueue() = default;
  /// Ends the thread after the work that is running; work that still waits is dropped.
  ~RequestQueue() override;

  void submit(std::function<void()> work) override;
  void create(const char* label) override;

  /// Where sockets and timers that belong to the queue live.
  asio::io_context& context() { return context_; }
  bool is_current() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  asio::io_context context_{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> stay_;
  std::thread thread_;
};

}  // namespace corvane
