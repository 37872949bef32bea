#include "platform/common/event_loops.h"

#include <asio/post.hpp>

#include <csignal>
#include <future>
#include <new>
#include <pthread.h>
#include <utility>

#include "platform/report.h"

namespace corvane {

namespace {

// Work for which memory runs out is lost, and the loop goes on with the next.
void run_to_the_end(asio::io_context& context) {
  for (;;) {
    try {
      context.run();
      return;
    } catch (const std::bad_alloc&) {
      report("out of memory: a piece of work was dropped");
    }
  }
}

}  // namespace

MainLoop::MainLoop() {
  end_signals_.add(SIGTERM);
  end_signals_.add(SIGINT);
  end_signals_.async_wait([this](const std::error_code& error, int) {
    if (!error) context_.stop();
  });
}

void MainLoop::run() {
  const auto stay = asio::make_work_guard(context_);
  run_to_the_end(context_);
}

void MainLoop::watch(int descriptor, std::function<void()> readable) {
  wait_for(watches_.emplace_back(Watch{{context_, descriptor}, std::move(readable)}));
}

void MainLoop::wait_for(Watch& watch) {
  watch.descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                              [this, &watch](const std::error_code& error) {
                                if (error) return;
                                watch.readable();
                                wait_for(watch);
                              });
}

void MainLoop::submit(std::function<void()> work) { asio::post(context_, std::move(work)); }

RequestQueue::~RequestQueue() {
  context_.stop();
  if (thread_.joinable()) thread_.join();
}

void RequestQueue::submit(std::function<void()> work) {
  if (!stay_) return work();
  asio::post(context_, std::move(work));
}

void RequestQueue::submit_and_wait(const std::function<void()>& work) {
  std::promise<void> done;
  submit([&] {
    work();
    done.set_value();
  });
  done.get_future().wait();
}

void RequestQueue::create(const char* label) {
  stay_.emplace(asio::make_work_guard(context_));
  thread_ = std::thread([this] { run_to_the_end(context_); });
  owner_ = thread_.get_id();
  pthread_setname_np(thread_.native_handle(), label);
}

}  // namespace corvane
