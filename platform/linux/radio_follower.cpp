#include "platform/linux/radio_follower.h"

#include <utility>

namespace corvane {

using plist::Ref;

namespace {

Ref<plist::Value> text_or_null(std::string_view text) {
  if (text.empty()) return nullptr;
  return plist::String::create(text);
}

Ref<plist::Value> data_or_null(const std::optional<std::string>& bytes) {
  if (!bytes) return nullptr;
  return plist::Data::create(*bytes);
}

// Whether `now` has an answer that differs from the one before.
bool knows_more(const RadioSnapshot& before, const RadioSnapshot& now) {
  for (const auto fact :
       {&RadioSnapshot::identity, &RadioSnapshot::subscriber, &RadioSnapshot::group_1, &RadioSnapshot::group_2}) {
    if (now.*fact && !plist::equal((before.*fact).get(), (now.*fact).get())) return true;
  }
  return false;
}

TelvoRadioStatus radio_status_of(const ModemReading& modem, const Ref<plist::Value>& identity) {
  auto properties = plist::MutableDictionary::create(modem.properties.size() + 1);
  for (const auto& [key, value] : modem.properties) properties->set(key, value);
  if (identity) properties->set("IntegratedCircuitCardIdentity", identity);
  return {plist::String::create(modem.ready ? "ready" : telvo_not_ready),
          plist::MutableDictionary::freeze(std::move(properties))};
}

}  // namespace

RadioFollower::Changes RadioFollower::update(const ModemReading* modem, Time now) {
  deadline_.reset();
  if (modem == nullptr) {
    if (holds(gone_since_, now)) return {};
    incomplete_since_.reset();
    return take_absence();
  }
  gone_since_.reset();
  if (!modem->card.is_complete()) {
    if (holds(incomplete_since_, now)) return {};
  } else {
    incomplete_since_.reset();
  }
  return take(*modem);
}

void RadioFollower::add_identities(RadioSnapshot& next, const CardReading& card) {
  if (card.is_out()) {
    next.identity = next.subscriber = plist::String::create("");
    return;
  }
  if (card.identity.empty()) return;
  if (!card.subscriber.empty()) {
    subscriber_card_ = card.identity;
    subscriber_ = card.subscriber;
  }
  if (subscriber_card_.empty()) return;
  next.identity = plist::String::create(card.identity);
  next.subscriber = plist::String::create(card.identity == subscriber_card_ ? subscriber_ : "");
  next.group_1 = data_or_null(card.group_1);
  next.group_2 = data_or_null(card.group_2);
}

bool RadioFollower::note_insertion(const CardReading& card) {
  if (card.identity.empty() && !card.is_out()) return false;
  const std::optional<std::string> before = std::exchange(card_, card.is_out() ? "" : card.identity);
  return before && *before != *card_ && !card_->empty();
}

RadioFollower::Changes RadioFollower::take(const ModemReading& modem) {
  const CardReading& card = modem.card;
  auto next = std::make_shared<RadioSnapshot>();
  next->connected = modem.reachable;
  next->card_failure = card.failure;
  if (!card.failure.failed()) add_identities(*next, card);
  next->firmware_version = text_or_null(modem.firmware_version);
  next->status = text_or_null(card.status);
  next->number = text_or_null(card.number);
  next->radio = radio_status_of(modem, next->identity);

  const bool is_first = !had_complete_ && card.is_complete();
  Changes changes;
  changes.sim_inserted = note_insertion(card);
  changes.sim_status = is_first || !plist::equal(snapshot_->status.get(), next->status.get()) ||
                       (!changes.sim_inserted && knows_more(*snapshot_, *next));
  changes.phone_number = !is_first && !plist::equal(snapshot_->number.get(), next->number.get());
  had_complete_ |= is_first;
  snapshot_ = std::move(next);
  return changes;
}

RadioFollower::Changes RadioFollower::take_absence() {
  Changes changes;
  changes.sim_status = static_cast<bool>(snapshot_->status);
  snapshot_ = std::make_shared<RadioSnapshot>();
  return changes;
}

// Whether it is too early to tell what the modem's silence means. Until then the status and the number stay, and
// nothing can be asked.
bool RadioFollower::holds(std::optional<Time>& since, Time now) {
  if (!since) since = now;
  const Time end = *since + radio_hold;
  if (now >= end) return false;
  deadline_ = end;
  if (snapshot_->connected) {
    auto next = std::make_shared<RadioSnapshot>();
    next->status = snapshot_->status;
    next->number = snapshot_->number;
    snapshot_ = std::move(next);
  }
  return true;
}

}  // namespace corvane
