#include "platform/linux/service_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace corvane {

using std::chrono::steady_clock;

namespace {

// However many signals come, there is so much time between two readings.
constexpr std::chrono::milliseconds reading_pause{50};

constexpr char bus_service[] = "org.freedesktop.DBus";

std::string owner_rule(const char* service) {
  return std::string(
             "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
             "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
         service + "'";
}

int error_of(sd_bus_message& reply) { return sd_bus_message_get_errno(&reply); }

bool is_error(sd_bus_message& reply) { return sd_bus_message_is_method_error(&reply, nullptr) > 0; }

}  // namespace

ServiceReader::ServiceReader(const TelephonyProtocol& protocol, SystemBus& bus, std::function<void()> changed)
    : protocol_(protocol),
      changed_(std::move(changed)),
      timer_(bus.loop(), [this] { owner_.empty() ? find_owner() : read(); }) {}

// ---- the bus ------------------------------------------------------------------------------------------

template <class Handle>
int ServiceReader::handle(ServiceReader& reader, Handle handle) noexcept {
  if (!run_in_callback(handle)) reader.start_over();
  return 0;
}

BusSlot ServiceReader::match(const std::string& rule, sd_bus_message_handler_t handler) {
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_add_match_async(bus_, &slot, rule.c_str(), handler, nullptr, this);
  if (result == -ENOMEM) throw std::bad_alloc();
  if (result < 0) fail("its signals cannot be followed", -result);
  return BusSlot(slot);
}

BusSlot ServiceReader::call(const char* destination, const TelephonyProtocol::Method& method,
                            sd_bus_message_handler_t handler, void* data) {
  sd_bus_message* raw = nullptr;
  sd_bus_slot* slot = nullptr;
  const std::chrono::microseconds timeout = bus_call_timeout;
  int result = sd_bus_message_new_method_call(bus_, &raw, destination, method.object.c_str(), method.interface,
                                              method.member);
  const BusMessage message(raw);
  if (result >= 0 && method.argument != nullptr) result = sd_bus_message_append_basic(raw, 's', method.argument);
  if (result >= 0) {
    result = sd_bus_call_async(bus_, &slot, raw, handler, data, static_cast<uint64_t>(timeout.count()));
  }
  if (result < 0) fail("it cannot be asked", -result);
  return BusSlot(slot);
}

void ServiceReader::start(sd_bus& bus) {
  bus_ = &bus;
  // It may still be set where the end of the bus before was interrupted.
  owner_.clear();
  owner_match_ = match(owner_rule(protocol_.service()), [](sd_bus_message* signal, void* self, sd_bus_error*) {
    auto& reader = *static_cast<ServiceReader*>(self);
    return handle(reader, [&] {
      // Where the rule names its sender by a well-known name, sd-bus lets signals of other clients pass.
      const char* sender = sd_bus_message_get_sender(signal);
      if (sender == nullptr || std::string_view(sender) != bus_service) return;
      const char *name = nullptr, *before = nullptr, *owner = nullptr;
      if (sd_bus_message_read(signal, "sss", &name, &before, &owner) > 0) reader.set_owner(owner);
    });
  });
  find_owner();
}

void ServiceReader::stop() {
  set_owner("");
  owner_call_.reset();
  owner_match_.reset();
  timer_.disarm();
  bus_ = nullptr;
}

// ---- the owner of the name ----------------------------------------------------------------------------

void ServiceReader::find_owner() {
  const TelephonyProtocol::Method method{"/org/freedesktop/DBus", bus_service, "GetNameOwner",
                                         protocol_.service()};
  owner_call_ = call(
      bus_service, method,
      [](sd_bus_message* reply, void* self, sd_bus_error*) {
        auto& reader = *static_cast<ServiceReader*>(self);
        return handle(reader, [&] { reader.take_owner(*reply); });
      },
      this);
}

void ServiceReader::take_owner(sd_bus_message& reply) {
  const char* owner = "";
  owner_call_.reset();
  if (sd_bus_message_is_method_error(&reply, "org.freedesktop.DBus.Error.NameHasNoOwner") > 0)
    return set_owner("");
  if (is_error(reply)) return fail("the bus did not name its owner", error_of(reply));
  if (sd_bus_message_read_basic(&reply, 's', &owner) <= 0) return fail("the bus named no owner", EBADMSG);
  set_owner(owner);
}

void ServiceReader::set_owner(std::string_view owner) {
  owner_call_.reset();
  if (owner != owner_) {
    if (owner.empty()) {
      gone_report_("%s is gone", protocol_.service());
    } else {
      there_report_("%s is there", protocol_.service());
    }
  } else if (!owner.empty()) {
    return;
  }
  owner_ = owner;
  list_call_.reset();
  card_calls_.clear();
  signal_matches_.clear();
  is_reading_ = is_failing_ = false;
  timer_.disarm();
  set_modems({});
  if (owner_.empty()) return;
  for (const char* rule : protocol_.signals()) {
    signal_matches_.push_back(match("type='signal',sender='" + owner_ + "'," + rule,
                                    [](sd_bus_message* signal, void* self, sd_bus_error*) {
                                      auto& reader = *static_cast<ServiceReader*>(self);
                                      return handle(reader, [&] { reader.take_signal(*signal); });
                                    }));
    if (signal_matches_.back() == nullptr) return start_over();
  }
  read();
}

// After a failure in the middle. The owner is found, and everything read, anew. It takes no memory.
void ServiceReader::start_over() {
  owner_.clear();
  signal_matches_.clear();
  list_call_.reset();
  card_calls_.clear();
  is_reading_ = false;
  timer_.arm(bus_retry);
}

void ServiceReader::take_signal(sd_bus_message& signal) {
  const TelephonyProtocol::Effect effect = protocol_.effect_of(signal);
  if (!effect.replaced.empty()) {
    is_stale_ = true;
    const auto is_replaced = [&](const ModemReading& modem) { return modem.object == effect.replaced; };
    if (std::erase_if(modems_, is_replaced) != 0) changed_();
  }
  if (effect.read_again) read_soon();
}

// ---- readings -----------------------------------------------------------------------------------------

void ServiceReader::read_soon() {
  const auto now = steady_clock::now();
  if (is_reading_) {
    read_again_ = true;
  } else if (now >= next_reading_) {
    read();
  } else {
    timer_.arm(std::chrono::ceil<std::chrono::milliseconds>(next_reading_ - now));
  }
}

void ServiceReader::read() {
  timer_.disarm();
  card_calls_.clear();
  pending_.clear();
  read_again_ = is_stale_ = has_failed_ = false;
  list_call_ = call(
      owner_.c_str(), protocol_.list_method(),
      [](sd_bus_message* reply, void* self, sd_bus_error*) {
        auto& reader = *static_cast<ServiceReader*>(self);
        return handle(reader, [&] { reader.take_list(*reply); });
      },
      this);
  is_reading_ = list_call_ != nullptr;
}

void ServiceReader::take_list(sd_bus_message& reply) {
  list_call_.reset();
  if (is_error(reply)) {
    fail("it did not list its modems", error_of(reply));
  } else if (!protocol_.read_modems(reply, pending_)) {
    pending_.clear();
    fail("its list of modems is malformed", EBADMSG);
  }
  if (pending_.size() > most_modems) pending_.resize(most_modems);
  for (size_t i = 0; i < pending_.size(); ++i) {
    if (pending_[i].card_object.empty()) continue;
    CardCall& card = card_calls_.emplace_back(CardCall{*this, i, nullptr});
    card.slot = call(
        owner_.c_str(), protocol_.card_method(pending_[i]),
        [](sd_bus_message* answer, void* card_call, sd_bus_error*) {
          auto& asked = *static_cast<CardCall*>(card_call);
          return handle(asked.reader, [&] { asked.reader.take_card(asked, *answer); });
        },
        &card);
    if (card.slot == nullptr) {
      pending_[i].card.failure = {telvo_domain_service, EINVAL};
      card_calls_.pop_back();
    }
  }
  awaited_cards_ = card_calls_.size();
  if (awaited_cards_ == 0) finish();
}

void ServiceReader::take_card(CardCall& call, sd_bus_message& reply) {
  ModemReading& modem = pending_[call.modem];
  if (is_error(reply)) {
    fail("it did not tell about a card", error_of(reply));
    modem.card.failure = {telvo_domain_service, error_of(reply)};
  } else if (!protocol_.read_card(reply, modem)) {
    fail("what it tells about a card is malformed", EBADMSG);
    modem.card.failure = {telvo_domain_service, EBADMSG};
  }
  if (--awaited_cards_ == 0) finish();
}

void ServiceReader::finish() {
  is_reading_ = false;
  next_reading_ = steady_clock::now() + reading_pause;
  if (!has_failed_) is_failing_ = false;
  if (read_again_ || is_stale_) {
    timer_.arm(reading_pause);
  } else if (has_failed_) {
    timer_.arm(bus_retry);
  }
  if (!is_stale_) set_modems(std::move(pending_));
}

// One line for each time that it begins to fail. It is tried again until it does not.
void ServiceReader::fail(const char* what, int error) {
  has_failed_ = true;
  if (!std::exchange(is_failing_, true))
    failure_report_("%s: %s: %s", protocol_.service(), what, std::strerror(error));
  if (!is_reading_) timer_.arm(bus_retry);
}

void ServiceReader::set_modems(std::vector<ModemReading> modems) {
  if (modems.empty() && modems_.empty()) return;
  modems_ = std::move(modems);
  changed_();
}

}  // namespace corvane
