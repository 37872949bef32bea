#include "platform/process/event_loops.h"

#include <asio/post.hpp>

#include <chrono>
#include <csignal>
#include <new>
#include <pthread.h>
#include <utility>

#include "platform/report.h"

namespace corvane {

namespace {

constexpr std::chrono::milliseconds memory_retry{100};

// Work for which memory runs out is dropped, and with it perhaps the wait for the next event. After a pause, in
// which other work may have freed memory, `rearm` starts that wait again.
template <class Rearm>
void run_until_stopped(asio::io_context& context, Rearm rearm) {
  RateLimitedReport dropped;
  bool ran_out = false;
  for (;;) {
    try {
      if (ran_out) {
        context.run_for(memory_retry);
        rearm();
        ran_out = false;
      }
      context.run();
      return;
    } catch (const std::bad_alloc&) {
      dropped("out of memory: a piece of work was dropped");
      ran_out = true;
    }
  }
}

}  // namespace

MainLoop::MainLoop() {
  end_signals_.add(SIGTERM);
  end_signals_.add(SIGINT);
  end_signals_.async_wait([this](const std::error_code& error, int) {
    if (error) return;
    context_.stop();
    if (at_end_) at_end_();
  });
}

void MainLoop::run() {
  const auto work_guard = asio::make_work_guard(context_);
  run_until_stopped(context_, [this] {
    for (Watch& watch : watches_) wait_for(watch);
  });
}

void MainLoop::watch(int descriptor, std::function<void()> readable) {
  wait_for(watches_.emplace_back(Watch{{context_, descriptor}, std::move(readable)}));
}

void MainLoop::wait_for(Watch& watch) {
  if (watch.pending) return;
  watch.descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                              [this, &watch](const std::error_code& error) {
                                watch.pending = false;
                                if (error) return;
                                watch.readable();
                                wait_for(watch);
                              });
  watch.pending = true;
}

void MainLoop::submit(std::function<void()> work) { asio::post(context_, std::move(work)); }

void RequestQueue::stop() {
  context_.stop();
  if (thread_.joinable()) thread_.join();
}

void RequestQueue::submit(std::function<void()> work) {
  if (!work_guard_) return work();
  asio::post(context_, std::move(work));
}

void RequestQueue::create(const char* label) {
  work_guard_.emplace(asio::make_work_guard(context_));
  thread_ = std::thread([this] {
    run_until_stopped(context_, [this] {
      for (const auto& rearm : rearms_) rearm();
    });
  });
  owner_ = thread_.get_id();
  pthread_setname_np(thread_.native_handle(), label);
}

}  // namespace corvane
