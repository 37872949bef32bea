// Drives the telephony service of a Linux device with random events on a real bus: cards change, are locked and
// taken out, modems and services come and go, signals are lost or come in any order, and replies are late, errors
// or malformed. After each event what the service answers is looked at, and with each notification a look-up
// stores it as the daemon would. Every now and then the events stop until what is stored is what is there. Usage:
// radio_events COUNT [SEED]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <random>

#include "fuzz/ensure.h"
#include "fuzz/followed_telephony.h"
#include "fuzz/radio_facts.h"
#include "fuzz/scripted_service.h"
#include "platform/linux/linux_telephony.h"

namespace corvane::fuzz {

namespace {

using namespace testing::scripted;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Objects;
using testing::ScriptedCard;
using testing::ScriptedService;
using Query = TelvoServerConnection::Query;
using Kind = ScriptedService::Reply::Kind;

struct NoProperties final : DeviceProperties {
  plist::Ref<plist::Value> copy_answer(const plist::String&) override { return nullptr; }
};

class Run {
 public:
  /// What happens to the cards between two pauses.
  enum class Cards { come_and_go, change, stay };

  explicit Run(unsigned seed) : random_(seed) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_.address().c_str(), 1);
    start_service();
    radio_.emplace(telephony_.emplace(properties_), [this](std::string_view) { look_up(); });
  }

  void handle_random_event();
  /// Looks at what is answered at this moment.
  void ask();
  /// Waits until the daemon knows the card that is there, and lets the cards do something else from then on.
  void settle(Cards next);

  int calls() { return calls_ + service_->calls(); }
  int look_ups() const { return look_ups_; }

 private:
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_()) % bound; }

  void start_service();
  void show_card();
  void replace_modem(bool is_told_in_order);
  void disturb_replies();
  void look_up();
  void expect_sound(const plist::Ref<plist::Value>& identity, const plist::Ref<plist::Value>& subscriber);
  bool knows_the_card();

  std::mt19937 random_;
  testing::PrivateBus bus_;
  std::optional<ScriptedService> service_;
  NoProperties properties_;
  std::optional<LinuxTelephony> telephony_;
  int modem_ = 0;
  int card_ = 1;  ///< 0: none
  bool is_locked_ = false;
  bool is_read_ = true;  ///< ModemManager knows whether there is a card
  std::atomic<Cards> cards_{Cards::come_and_go};

  int calls_ = 0;  ///< of the services before
  std::atomic<int> look_ups_{0};
  std::mutex mutex_;
  StoredFacts stored_;
  std::optional<testing::FollowedTelephony> radio_;
};

void Run::start_service() {
  if (service_) calls_ += service_->calls();
  service_.emplace(bus_.address());
  show_card();
  service_->own(ScriptedService::modem_manager);
}

// Only the modem with the card that is there now is listed.
void Run::show_card() {
  const ScriptedCard card{identity_of(card_), subscriber_of(card_), "+1555" + std::to_string(card_), is_locked_};
  service_->change([&](Objects& objects) {
    objects.clear();
    put_modem(objects, modem_, card_ == 0 || !is_read_ ? nullptr : &card);
    if (!is_read_) objects[modem_path(modem_)][modem_interface]["State"] = int32_t{1};
  });
}

// Paths are used again: there are only three.
void Run::replace_modem(bool is_told_in_order) {
  const std::string before = modem_path(modem_);
  modem_ = static_cast<int>(below(3));
  if (is_told_in_order) service_->interfaces_removed(before);
  show_card();
  service_->interfaces_added(modem_path(modem_));
  if (!is_told_in_order) service_->interfaces_removed(before);
}

void Run::disturb_replies() {
  const char* method = below(2) == 0 ? "GetManagedObjects" : "GetAll";
  switch (below(8)) {
    case 0:
      return service_->reply_to(method, {Kind::error});
    case 1:
      return service_->reply_to(method, {Kind::malformed});
    default:
      return service_->reply_to(method, {Kind::normal, milliseconds(below(60))});
  }
}

void Run::handle_random_event() {
  const Cards cards = cards_;
  switch (below(12)) {
    case 0:
    case 1:
      if (cards == Cards::come_and_go) card_ = static_cast<int>(below(card_count));
      if (cards == Cards::change) card_ = static_cast<int>(1 + below(card_count - 1));
      is_locked_ = below(3) == 0;
      return replace_modem(below(2) == 0);
    case 2:
      // The same card in a modem that was reset.
      return replace_modem(true);
    case 3:
      // Another card behind the same objects.
      if (card_ != 0 && cards != Cards::stay) card_ = static_cast<int>(1 + below(card_count - 1));
      show_card();
      return service_->properties_changed(sim_path(modem_), sim_interface, "SimIdentifier");
    case 4:
      is_locked_ = !is_locked_;
      show_card();
      return service_->properties_changed(modem_path(modem_), modem_interface, "UnlockRequired");
    case 5:
      is_read_ = !is_read_;
      show_card();
      return service_->properties_changed(modem_path(modem_), modem_interface, "Sim");
    case 6:
      return service_->interfaces_removed(modem_path(static_cast<int>(below(3))));
    case 7:
      if (below(40) == 0) return start_service();
      return service_->properties_changed(sim_path(modem_), sim_interface, "Imsi");
    case 8:
    case 9:
      return disturb_replies();
    default:
      // Sometimes long enough for a whole reading.
      return std::this_thread::sleep_for(milliseconds(below(6) == 0 ? 50 + below(60) : below(10)));
  }
}

// Two cards are never mixed. An identity is removed only where cards are taken out, and a subscriber only where
// cards change.
void Run::expect_sound(const plist::Ref<plist::Value>& identity, const plist::Ref<plist::Value>& subscriber) {
  const plist::String* identity_text = text_in(identity);
  const plist::String* subscriber_text = text_in(subscriber);
  const Cards cards = cards_;
  if (identity_text != nullptr) ENSURE(!identity_text->view().empty() || cards == Cards::come_and_go);
  if (subscriber_text != nullptr) ENSURE(!subscriber_text->view().empty() || cards != Cards::stay);
  if (identity_text == nullptr || subscriber_text == nullptr) return;
  ENSURE(!is_mix(identity_text->view(), subscriber_text->view()));
}

void Run::ask() {
  const auto connection = telephony_->connect([] {});
  if (connection == nullptr) return;
  plist::Ref<plist::Value> identity, subscriber;
  connection->copy(Query::sim_identity, identity);
  connection->copy(Query::mobile_subscriber_identity, subscriber);
  expect_sound(identity, subscriber);
}

// On the main run loop, with each notification.
void Run::look_up() {
  ++look_ups_;
  const std::lock_guard lock(mutex_);
  stored_.take_status(telephony_->sim_status());
  if (const auto connection = telephony_->connect([] {})) {
    plist::Ref<plist::Value> identity, subscriber;
    connection->copy(Query::sim_identity, identity);
    connection->copy(Query::mobile_subscriber_identity, subscriber);
    expect_sound(identity, subscriber);
    stored_.take_identities(identity, subscriber);
  }
  ENSURE(!is_mix(stored_.identity, stored_.subscriber));
}

bool Run::knows_the_card() {
  const std::lock_guard lock(mutex_);
  if (card_ == 0) {
    return stored_.status == sim_status::not_inserted && stored_.identity.empty() && stored_.subscriber.empty();
  }
  if (stored_.identity != identity_of(card_)) return false;
  if (is_locked_) return stored_.status == sim_status::pin_required;
  return stored_.status == sim_status::ready && stored_.subscriber == subscriber_of(card_);
}

void Run::settle(Cards next) {
  if (next != Cards::come_and_go) {
    card_ = std::max(card_, 1);
    is_locked_ = false;
  }
  service_->reply_normally();
  is_read_ = true;
  show_card();
  service_->properties_changed(modem_path(modem_), modem_interface, "UnlockRequired");
  const auto end = steady_clock::now() + std::chrono::seconds(30);
  while (!knows_the_card()) {
    ENSURE(steady_clock::now() < end);
    std::this_thread::sleep_for(milliseconds(5));
  }
  cards_ = next;
}

}  // namespace

}  // namespace corvane::fuzz

int main(int count, char** arguments) {
  using Run = corvane::fuzz::Run;
  if (count < 2) return 2;
  const long events = std::atol(arguments[1]);
  Run run(count > 2 ? static_cast<unsigned>(std::atol(arguments[2])) : 1u);
  for (long i = 0; i < events; ++i) {
    if (i % 200 == 0) run.settle(static_cast<Run::Cards>(i / 200 % 3));
    run.handle_random_event();
    run.ask();
  }
  run.settle(Run::Cards::come_and_go);
  std::printf("%ld events, %d calls, %d look-ups\n", events, run.calls(), run.look_ups());
  return 0;
}
