#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/process/event_loops.h"
#include "platform/telephony.h"
#include "plist/describe.h"

namespace corvane::testing {

/// Runs a telephony service on the main run loop of a thread of its own, and listens to its notifications there.
/// There may be one at a time, because the loop ends by SIGTERM.
class FollowedTelephony {
 public:
  using Listener = std::function<void(std::string_view notification)>;

  explicit FollowedTelephony(
      Telephony& telephony, Listener listener = [](std::string_view) {})
      : telephony_(telephony), listener_(std::move(listener)), thread_([this] { run(); }) {}
  ~FollowedTelephony() {
    wait_until_it_runs();
    kill(getpid(), SIGTERM);
    thread_.join();
  }
  FollowedTelephony(const FollowedTelephony&) = delete;
  FollowedTelephony& operator=(const FollowedTelephony&) = delete;

  /// What was announced since the last call, oldest first: "inserted ", "status " and "number ".
  std::string take_notifications() {
    const std::lock_guard lock(mutex_);
    return std::exchange(notifications_, "");
  }

  /// All answers that are known.
  std::string answers() {
    using Query = TelvoServerConnection::Query;
    auto answers = plist::MutableDictionary::create();
    const auto add = [&](const char* name, const plist::Ref<plist::Value>& value) {
      if (value) answers->set(plist::String::create(name), value);
    };
    add("status", telephony_.sim_status());
    add("number", telephony_.copy_my_phone_number());
    const auto connection = telephony_.connect([] {});
    const std::pair<const char*, Query> queries[] = {
        {"identity", Query::sim_identity},          {"subscriber", Query::mobile_subscriber_identity},
        {"firmware", Query::firmware_version},      {"bootloader", Query::bootloader_version},
        {"group 1", Query::group_identifier_1},     {"group 2", Query::group_identifier_2},
        {"security", Query::firmware_security_info}};
    for (const auto& [name, query] : queries) {
      plist::Ref<plist::Value> value;
      if (connection != nullptr && !connection->copy(query, value).failed()) add(name, value);
    }
    return plist::describe(answers.get());
  }

  /// How long the main run loop takes until it does something else.
  std::chrono::milliseconds loop_delay() {
    wait_until_it_runs();
    const auto asked = std::chrono::steady_clock::now();
    std::atomic<bool> is_done{false};
    loop_.load()->submit([&] { is_done = true; });
    while (!is_done) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - asked);
  }

 private:
  void wait_until_it_runs() {
    while (!is_running_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  void run() {
    MainLoop loop;
    loop_ = &loop;
    const auto note = [](TelephonyCentre*, void* self, const plist::String* name, const plist::Value*,
                         const plist::Dictionary*) { static_cast<FollowedTelephony*>(self)->take(name->view()); };
    TelephonyCentre* centre = telephony_.default_centre();
    for (const auto name : {telvo_sim_inserted, telvo_sim_status_changed, telvo_phone_number_changed}) {
      centre->add_observer(this, note, name);
    }
    centre->set_default_run_loop(loop);
    is_running_ = true;
    loop.run();
  }
  void take(std::string_view name) {
    listener_(name);
    const std::lock_guard lock(mutex_);
    notifications_ += name == telvo_sim_inserted         ? "inserted "
                      : name == telvo_sim_status_changed ? "status "
                                                         : "number ";
  }

  Telephony& telephony_;
  const Listener listener_;
  std::atomic<MainLoop*> loop_{nullptr};
  std::atomic<bool> is_running_{false};
  std::mutex mutex_;
  std::string notifications_;
  std::thread thread_;
};

}  // namespace corvane::testing
