// Gives the choice of a modem and the follower of a radio the readings of four modems, two of each service, into
// which cards are put and out of which they are taken while the modems come and go and tell more or less of their
// cards. Beside them runs a model of the daemon, which looks up what it is told at a moment of its own. The input:
// two bytes for each event.

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fuzz/ensure.h"
#include "fuzz/radio_facts.h"
#include "platform/linux/modem_choice.h"
#include "platform/linux/radio_follower.h"

namespace corvane::fuzz {

namespace {

using std::chrono::milliseconds;

struct Modem {
  std::string device;
  int card = 0;  ///< 0: none
  bool is_locked = false;
  bool is_there = false;
  // What its service knows.
  bool tells_status = true;
  bool tells_identity = true;
  bool tells_subscriber = true;
  bool fails = false;

  ModemReading reading() const;
};

ModemReading Modem::reading() const {
  ModemReading reading;
  reading.device = reading.primary_port = device;
  reading.reachable = reading.ready = true;
  reading.has_card = card != 0 && tells_status;
  CardReading& facts = reading.card;
  if (fails) facts.failure = {telvo_domain_service, 5};
  if (tells_status) {
    facts.status = card == 0 ? sim_status::not_inserted : is_locked ? sim_status::pin_required : sim_status::ready;
  }
  if (card != 0 && !fails && tells_identity) facts.identity = identity_of(card);
  if (card != 0 && !fails && tells_subscriber && !is_locked) facts.subscriber = subscriber_of(card);
  return reading;
}

class Run {
 public:
  /// An earlier run has stored the facts of a card, or nothing.
  explicit Run(int stored_card) {
    if (stored_card == 0) return;
    stored_.identity = identity_of(stored_card);
    stored_.subscriber = subscriber_of(stored_card);
  }

  void handle(uint8_t event, uint8_t argument);
  void settle();

 private:
  void update();
  void wait(milliseconds time);
  void look_up();
  void expect_sound(const ModemReading* chosen);

  std::array<Modem, 4> modems_{{{"mm0"}, {"mm1"}, {"ofono0"}, {"ofono1"}}};
  std::vector<ModemReading> modem_manager_, ofono_;
  ModemChoice choice_;
  RadioFollower follower_;
  RadioFollower::Time now_{};
  const ModemReading* chosen_ = nullptr;
  bool was_complete_ = false;   ///< the card was read whole once
  std::set<std::string> seen_;  ///< the identities of the cards that were followed

  StoredFacts stored_;
  bool is_announced_ = false;   ///< a look-up will come
  bool is_looking_up_ = false;  ///< and has taken its first step
};

void Run::update() {
  modem_manager_.clear();
  ofono_.clear();
  for (size_t i = 0; i < modems_.size(); ++i) {
    if (modems_[i].is_there) (i < 2 ? modem_manager_ : ofono_).push_back(modems_[i].reading());
  }
  chosen_ = choice_.choose(modem_manager_, ofono_, now_);
  const RadioFollower::Changes changes = follower_.update(chosen_, now_);
  is_announced_ |= changes.sim_inserted || changes.sim_status || changes.phone_number;
  const bool is_first = !was_complete_ && chosen_ != nullptr && chosen_->card.is_complete();
  ENSURE(!is_first || changes.sim_status);
  was_complete_ |= is_first;
  expect_sound(chosen_);
}

void Run::expect_sound(const ModemReading* chosen) {
  ENSURE(!choice_.deadline() || *choice_.deadline() > now_);
  ENSURE(!follower_.deadline() || *follower_.deadline() > now_);
  if (chosen != nullptr && !chosen->card.identity.empty()) seen_.insert(chosen->card.identity);
  const bool is_out = chosen != nullptr && chosen->card.is_out();

  const auto snapshot = follower_.snapshot();
  const plist::String* identity = text_in(snapshot->identity);
  const plist::String* subscriber = text_in(snapshot->subscriber);
  ENSURE(identity == nullptr || !identity->view().empty() || is_out);
  ENSURE(subscriber == nullptr || !subscriber->view().empty() || is_out || seen_.size() > 1);
  if (identity != nullptr && subscriber != nullptr) ENSURE(!is_mix(identity->view(), subscriber->view()));
}

// Both are called again at their deadlines, as long as that takes.
void Run::wait(milliseconds time) {
  const RadioFollower::Time end = now_ + time;
  for (;;) {
    const auto next = std::min(choice_.deadline().value_or(end), follower_.deadline().value_or(end));
    if (next >= end) break;
    now_ = next;
    update();
  }
  now_ = end;
  update();
}

void Run::look_up() {
  const auto snapshot = follower_.snapshot();
  if (!is_looking_up_) {
    if (!is_announced_) return;
    is_announced_ = false;
    is_looking_up_ = true;
    stored_.take_status(snapshot->status);
    return;
  }
  is_looking_up_ = false;
  if (snapshot->connected && !snapshot->card_failure.failed()) {
    stored_.take_identities(snapshot->identity, snapshot->subscriber);
  }
  ENSURE(!is_mix(stored_.identity, stored_.subscriber));
}

void Run::handle(uint8_t event, uint8_t argument) {
  Modem& modem = modems_[argument % 4];
  argument /= 4;
  switch (event % 8) {
    case 0:
      modem.card = argument % card_count;
      break;
    case 1:
      modem.is_locked = argument % 2 == 0;
      break;
    case 2:
      modem.is_there = argument % 2 == 0;
      break;
    case 3:
      modem.tells_status = (argument & 1) != 0;
      modem.tells_identity = (argument & 2) != 0;
      modem.tells_subscriber = (argument & 4) != 0;
      modem.fails = (argument & 24) == 24;
      break;
    case 4:
      // Another card while the modem is away.
      modem.is_there = false;
      update();
      modem.is_there = true;
      modem.card = argument % card_count;
      break;
    case 5:
      return wait(milliseconds(argument * 250));
    default:
      return look_up();
  }
  update();
}

// Everything is told, and all that is waited for is over: the daemon knows the card.
void Run::settle() {
  for (Modem& modem : modems_) {
    modem.tells_status = modem.tells_identity = modem.tells_subscriber = true;
    modem.fails = false;
  }
  update();
  wait(4 * radio_hold);
  for (int step = 0; step < 4; ++step) look_up();

  const auto& first = modem_manager_.empty() ? ofono_ : modem_manager_;
  const bool has_card = std::any_of(first.begin(), first.end(), [](auto& modem) { return modem.has_card; });
  ENSURE((chosen_ == nullptr) == first.empty());
  if (chosen_ == nullptr) {
    ENSURE(stored_.status.empty());
    return;
  }
  ENSURE(chosen_ >= first.data() && chosen_ < first.data() + first.size());
  ENSURE(chosen_->has_card == has_card);
  const CardReading& card = chosen_->card;
  ENSURE(stored_.status == card.status);
  const bool is_withheld = !follower_.snapshot()->identity;
  ENSURE(!is_withheld || card.subscriber.empty());
  if (is_withheld) return;
  ENSURE(stored_.identity == card.identity);
  ENSURE(!card.is_out() || stored_.subscriber.empty());
  if (!card.subscriber.empty()) ENSURE(stored_.subscriber == card.subscriber);
}

}  // namespace
}  // namespace corvane::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace corvane;
  if (size == 0) return 0;
  fuzz::Run run(bytes[0] % fuzz::card_count);
  for (size_t at = 1; at + 1 < size; at += 2) run.handle(bytes[at], bytes[at + 1]);
  run.settle();
  return 0;
}
