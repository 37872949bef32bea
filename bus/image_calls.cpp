#include "bus/image_calls.h"

#include <string_view>
#include <utility>

#include "bus/daemon_link.h"
#include "bus/report.h"
#include "bus/variant_dictionary.h"
#include "client/methods.h"

namespace corvane::bus {

namespace {

constexpr char failed[] = "com.norvane.corvaned.Error.Failed";
constexpr char not_carried[] = "com.norvane.corvaned.Error.NotCarried";

// While an answer is read it takes up to fifteen times its size: so much do nests of containers with one value
// each.
constexpr uint32_t answer_limit = uint32_t{32} << 20;

client::Answer ask_for_images() {
  client::Connection connection(wire::public_service, client::Connection::root_from_environment(), ask_timeout,
                                answer_limit);
  return client::copy_regulatory_images(connection);
}

// Callers on a connection without a bus have no name.
std::string_view name_of_caller(sd_bus_message* call) {
  const char* name = sd_bus_message_get_sender(call);
  return name == nullptr ? "" : name;
}

int refuse(sd_bus_message* call, const char* error, const std::string& text) {
  return sd_bus_reply_method_errorf(call, error, "%s", text.c_str());
}

int send_images(sd_bus_message* call, const plist::Dictionary& images) {
  sd_bus_message* message = nullptr;
  const int result = sd_bus_message_new_method_return(call, &message);
  if (result < 0) return result;
  const MessagePtr reply(message);
  const char* fault = nullptr;
  const int appended = append_dictionary(*message, images, fault);
  if (fault != nullptr) {
    return refuse(call, not_carried, std::string("the images have ") + fault);
  }
  return appended < 0 ? appended : sd_bus_send(nullptr, message, nullptr);
}

}  // namespace

ImageCalls::ImageCalls(sd_event& loop) : worker_(loop) {
  const auto ready = [](sd_event_source*, void* self) {
    static_cast<ImageCalls*>(self)->answer_next();
    return 0;
  };
  sd_event_source* source = nullptr;
  require(sd_event_add_defer(&loop, &source, ready, this), "sd_event_add_defer");
  answering_.reset(source);
  sd_event_source_set_enabled(source, SD_EVENT_OFF);
}

int ImageCalls::add(sd_bus_message* call, sd_bus_error* error) {
  if (sd_bus_message_get_expect_reply(call) == 0) return 1;
  const std::string_view caller = name_of_caller(call);
  const auto calls = calls_of_.find(caller);
  const bool has_too_many = calls != calls_of_.end() && calls->second == calls_per_caller;
  if (has_too_many || waiting_.size() + asked_.size() == call_limit) {
    return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many calls wait for an answer");
  }
  ++calls_of_[std::string(caller)];
  waiting_.emplace_back(sd_bus_message_ref(call));
  ask();
  return 1;
}

void ImageCalls::ask() {
  if (waiting_.empty() || !asked_.empty()) return;
  asked_.swap(waiting_);
  worker_.start([this] { found_ = ask_for_images(); }, [] {});
}

void ImageCalls::go_on() {
  if (!asked_.empty() && !worker_.is_busy()) sd_event_source_set_enabled(answering_.get(), SD_EVENT_ONESHOT);
}

void ImageCalls::answer_next() {
  const MessagePtr call = std::move(asked_.front());
  asked_.pop_front();
  const auto calls = calls_of_.find(name_of_caller(call.get()));
  if (--calls->second == 0) calls_of_.erase(calls);
  answer(call.get());
  if (!asked_.empty()) return;
  found_ = {};
  ask();
}

// A text of the daemon may be one that D-Bus cannot carry, and memory may be out. A caller may be gone by now; its
// answer then goes nowhere.
void ImageCalls::answer(sd_bus_message* call) const {
  if (send_answer(call) < 0) refuse(call, failed, "the answer could not be sent");
}

int ImageCalls::send_answer(sd_bus_message* call) const {
  const wire::Response& response = found_.response;
  if (found_.outcome == client::Outcome::too_long) {
    return refuse(call, not_carried, "the images take more than 32 MiB");
  }
  if (found_.outcome != client::Outcome::answered) {
    return refuse(call, "com.norvane.corvaned.Error.NotAvailable", "the daemon does not answer: " + found_.detail);
  }
  if (response.failed) return refuse(call, failed, "the daemon answered an error: " + response.description);
  if (response.reply) return send_images(call, *response.reply);
  return refuse(call, "com.norvane.corvaned.Error.NoImages", "no regulatory images are stored");
}

}  // namespace corvane::bus
