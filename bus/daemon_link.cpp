// The daemon is there as soon as it has accepted a subscription and has answered a request. The end of the
// subscription tells that it is gone.

#include "bus/daemon_link.h"

#include <algorithm>
#include <utility>

#include "bus/report.h"
#include "client/methods.h"

namespace corvane::bus {

using std::chrono::steady_clock;

DaemonLink::DaemonLink(sd_event& loop, Handlers handlers)
    : loop_(loop), handlers_(std::move(handlers)), worker_(loop) {
  const auto run_out = [](sd_event_source*, uint64_t, void* self) {
    static_cast<DaemonLink*>(self)->connect();
    return 0;
  };
  sd_event_source* source = nullptr;
  require(sd_event_add_time(&loop, &source, CLOCK_MONOTONIC, 0, 0, run_out, this), "sd_event_add_time");
  retry_timer_.reset(source);
  const auto next_turn = [](sd_event_source*, void* self) {
    static_cast<DaemonLink*>(self)->read();
    return 0;
  };
  require(sd_event_add_defer(&loop, &source, next_turn, this), "sd_event_add_defer");
  unread_.reset(source);
  sd_event_source_set_enabled(source, SD_EVENT_OFF);
}

void DaemonLink::connect() {
  if (is_available() || worker_.is_busy()) return;
  sd_event_source_set_enabled(retry_timer_.get(), SD_EVENT_OFF);
  worker_.start([this] { found_ = find_daemon(); }, [this] { take(std::move(found_)); });
}

DaemonLink::Connected DaemonLink::find_daemon() {
  Connected found;
  auto subscription = std::make_unique<client::Subscription>();
  if (subscription->open(found.fault) != client::Outcome::answered) return found;
  client::Connection connection(wire::public_service, client::Connection::root_from_environment(), ask_timeout);
  const client::Answer answer = client::copy_version(connection);
  found.fault = answer.detail;
  if (answer.outcome != client::Outcome::answered) return found;
  found.subscription = std::move(subscription);
  const plist::Dictionary* reply = answer.response.reply.get();
  const plist::Value* version = reply == nullptr ? nullptr : reply->get(wire::version_key);
  if (const auto* text = plist::cast<plist::String>(version)) found.version = text->view();
  return found;
}

void DaemonLink::take(Connected connected) {
  if (!connected.subscription) {
    if (!std::exchange(is_missed_, true)) report("no daemon yet: " + connected.fault);
    return retry_later();
  }
  is_missed_ = false;
  subscription_ = std::move(connected.subscription);
  version_ = std::move(connected.version);
  connected_at_ = steady_clock::now();
  const auto on_readable = [](sd_event_source*, int, uint32_t, void* self) {
    static_cast<DaemonLink*>(self)->read();
    return 0;
  };
  sd_event_source* source = nullptr;
  require(sd_event_add_io(&loop_, &source, subscription_->descriptor(), EPOLLIN, on_readable, this),
          "sd_event_add_io");
  readable_.reset(source);
  report("the daemon is there" + (version_.empty() ? "" : ", version " + version_));
  handlers_.changed();
}

void DaemonLink::set_reading(bool reads) {
  const bool was_reading = std::exchange(reads_, reads);
  if (readable_) sd_event_source_set_enabled(readable_.get(), reads ? SD_EVENT_ON : SD_EVENT_OFF);
  if (reads && !was_reading) read_on();
}

void DaemonLink::read_on() {
  require(sd_event_source_set_enabled(unread_.get(), SD_EVENT_ONESHOT), "sd_event_source_set_enabled");
}

void DaemonLink::read() {
  wire::Notification notification;
  std::string why;
  for (int count = 0; subscription_ && reads_; ++count) {
    if (count == notifications_per_turn) return read_on();
    const client::Outcome outcome = subscription_->next(notification, why, {});
    if (outcome == client::Outcome::timed_out) return;
    if (outcome != client::Outcome::answered) return lose(why);
    if (notification.missed > 0) handlers_.missed(static_cast<uint64_t>(notification.missed));
    if (!notification.name.empty()) handlers_.notified(notification.name);
  }
}

void DaemonLink::lose(const std::string& why) {
  report("the daemon is gone: " + why);
  is_missed_ = true;
  if (steady_clock::now() - connected_at_ >= longest_retry) retry_delay_ = shortest_retry;
  readable_.reset();
  subscription_.reset();
  version_.clear();
  handlers_.changed();
  retry_later();
}

void DaemonLink::retry_later() {
  const std::chrono::microseconds delay = std::exchange(retry_delay_, std::min(2 * retry_delay_, longest_retry));
  require(sd_event_source_set_time_relative(retry_timer_.get(), static_cast<uint64_t>(delay.count())),
          "retry timer");
  require(sd_event_source_set_enabled(retry_timer_.get(), SD_EVENT_ONESHOT), "retry timer");
}

}  // namespace corvane::bus
