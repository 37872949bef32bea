#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/signal_set.hpp>

#include <atomic>
#include <deque>
#include <functional>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/run_loop.h"

/// The two event loops of the process: the main thread's, and the request queue's on its own thread.
namespace corvane {

class MainLoop final : public RunLoop, public WorkQueue {
 public:
  MainLoop();

  void run() override;
  void watch(int descriptor, std::function<void()> readable) override;
  void submit(std::function<void()> work) override;
  bool is_current() const override { return std::this_thread::get_id() == main_thread_; }
  void create(const char*) override {}

  /// `work` runs on the loop when the process is asked to end, before `run` returns. Once.
  void at_end(std::function<void()> work) { at_end_ = std::move(work); }

 private:
  struct Watch {
    asio::posix::stream_descriptor descriptor;
    std::function<void()> readable;
    bool pending = false;
  };
  void wait_for(Watch& watch);

  asio::io_context context_{1};
  std::deque<Watch> watches_;
  asio::signal_set end_signals_{context_};
  std::function<void()> at_end_;
  const std::thread::id main_thread_ = std::this_thread::get_id();
};

class RequestQueue final : public WorkQueue {
 public:
  RequestQueue() = default;
  ~RequestQueue() override { stop(); }

  void submit(std::function<void()> work) override;
  bool is_current() const override { return std::this_thread::get_id() == owner_; }
  void create(const char* label) override;

  /// `rearm` is called after memory has run out on the queue, and again until it does not throw std::bad_alloc. It
  /// must start the waits that were lost, and leave alone those that go on. Before `create`.
  void rearm_with(std::function<void()> rearm) { rearms_.push_back(std::move(rearm)); }

  /// Ends the thread after the work that is running. Nothing runs on the queue any more. Not from the queue
  /// itself.
  void stop();

  /// Where sockets and timers that belong to the queue live. From `create` to `stop` its sockets may be used on
  /// the queue only, because they have no locks.
  asio::io_context& context() { return context_; }

 private:
  // With locks for submitting work and for timers, but none for sockets.
  asio::io_context context_{ASIO_CONCURRENCY_HINT_UNSAFE_IO};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_guard_;
  std::vector<std::function<void()>> rearms_;
  std::thread thread_;
  std::atomic<std::thread::id> owner_{std::this_thread::get_id()};
};

}  // namespace corvane
