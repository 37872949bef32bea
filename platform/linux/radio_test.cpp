#include <gtest/gtest.h>

#include <vector>

#include "platform/linux/modem_choice.h"
#include "platform/linux/radio_follower.h"

namespace corvane {
namespace {

CardReading reading(std::string_view status, const char* identity = "", const char* subscriber = "") {
  CardReading card;
  card.status = status;
  card.identity = identity;
  card.subscriber = subscriber;
  return card;
}
CardReading card(const char* identity, const char* subscriber) {
  return reading(sim_status::ready, identity, subscriber);
}
CardReading locked_card(const char* identity) { return reading(sim_status::pin_required, identity); }
CardReading no_card() { return reading(sim_status::not_inserted); }

ModemReading modem_with(const CardReading& card, const char* port = "ttyUSB0") {
  ModemReading modem;
  modem.device = modem.primary_port = port;
  modem.reachable = true;
  modem.has_card = !card.is_out();
  modem.card = card;
  return modem;
}

std::string text_of(const plist::Ref<plist::Value>& value) {
  const auto* text = plist::cast<plist::String>(value.get());
  if (text == nullptr) return "unknown";
  return text->view().empty() ? "removed" : std::string(text->view());
}

/// A follower, and the clock that it is given. `sees` returns what is announced.
struct Radio {
  std::string sees(const ModemReading* modem) {
    const RadioFollower::Changes changes = follower.update(modem, now);
    return std::string(changes.sim_inserted ? "inserted " : "") + (changes.sim_status ? "status " : "") +
           (changes.phone_number ? "number " : "");
  }
  std::string sees(const CardReading& card) {
    const ModemReading modem = modem_with(card);
    return sees(&modem);
  }
  std::string answers() const {
    const auto snapshot = follower.snapshot();
    return "identity " + text_of(snapshot->identity) + ", subscriber " + text_of(snapshot->subscriber) + ", " +
           text_of(snapshot->status);
  }

  RadioFollower follower;
  RadioFollower::Time now{};
};

TEST(RadioFollower, NeverGivesTheSubscriberOfAnotherCard) {
  Radio radio;
  EXPECT_EQ(radio.sees(card("A", "a")), "status ") << "the first whole reading";
  EXPECT_EQ(radio.sees(locked_card("A")), "status ") << "its modem came back, and the card waits for its PIN";
  EXPECT_EQ(radio.answers(), "identity A, subscriber a, pin required");
  EXPECT_EQ(radio.sees(locked_card("B")), "inserted ");
  EXPECT_EQ(radio.answers(), "identity B, subscriber removed, pin required");
  EXPECT_EQ(radio.sees(card("B", "b")), "status ") << "the PIN was entered";
}

TEST(RadioFollower, WithholdsTheIdentityUntilTheFirstSubscriberIsKnown) {
  Radio radio;
  EXPECT_EQ(radio.sees(locked_card("A")), "status ");
  EXPECT_EQ(radio.answers(), "identity unknown, subscriber unknown, pin required");
  EXPECT_EQ(radio.sees(locked_card("B")), "inserted ") << "another one, locked as well";
  EXPECT_EQ(radio.sees(card("B", "b")), "status ");
  EXPECT_EQ(radio.answers(), "identity B, subscriber b, ready");
}

TEST(RadioFollower, RemovesBothWhenTheCardIsOutAndAnnouncesTheNextOne) {
  Radio radio;
  radio.sees(card("A", "a"));
  EXPECT_EQ(radio.sees(no_card()), "status ");
  EXPECT_EQ(radio.answers(), "identity removed, subscriber removed, not inserted");
  EXPECT_EQ(radio.sees(card("A", "a")), "inserted status ") << "the same card, put in again";
}

TEST(RadioFollower, AnnouncesFactsThatBecomeKnown) {
  Radio radio;
  CardReading now = card("A", "a");
  radio.sees(now);
  now.group_1 = "";
  EXPECT_EQ(radio.sees(now), "status ") << "the card is known to have no group";
  now.number = "+1555";
  EXPECT_EQ(radio.sees(now), "number ");
}

TEST(RadioFollower, HoldsWhatItKnewOfAModemThatIsGone) {
  Radio radio;
  radio.sees(card("A", "a"));
  EXPECT_EQ(radio.sees(nullptr), "");
  EXPECT_EQ(radio.answers(), "identity unknown, subscriber unknown, ready");
  EXPECT_FALSE(radio.follower.snapshot()->connected);
  EXPECT_EQ(radio.follower.deadline(), radio.now + radio_hold);
  radio.now += radio_hold - std::chrono::seconds(1);
  EXPECT_EQ(radio.sees(nullptr), "");
  radio.now += std::chrono::seconds(1);
  EXPECT_EQ(radio.sees(nullptr), "status ") << "gone for good";
  EXPECT_EQ(radio.answers(), "identity unknown, subscriber unknown, unknown");
  EXPECT_EQ(radio.sees(nullptr), "") << "announced once";
  EXPECT_EQ(radio.sees(card("A", "a")), "status ");
  EXPECT_EQ(radio.sees(nullptr), "") << "gone again, and held for as long again";
}

TEST(RadioFollower, HoldsWhatItKnewUntilTheCardIsReadWhole) {
  Radio radio;
  radio.sees(card("A", "a"));
  EXPECT_EQ(radio.sees(card("B", "")), "") << "the subscriber may follow";
  radio.now += radio_hold;
  EXPECT_EQ(radio.sees(card("B", "")), "inserted ") << "it does not";
  EXPECT_EQ(radio.answers(), "identity B, subscriber removed, ready");
  EXPECT_EQ(radio.sees(nullptr), "") << "its modem may come back";
  radio.now += radio_hold;
  EXPECT_EQ(radio.sees(nullptr), "status ");
  EXPECT_EQ(radio.sees(card("C", "")), "") << "a modem that came back is read in peace";
}

TEST(ModemChoice, PrefersModemManagerThenACardThenTheLowestPort) {
  ModemChoice choice;
  const std::vector<ModemReading> ofono = {modem_with(card("A", "a"))};
  std::vector<ModemReading> modems = {modem_with(no_card(), "ttyUSB1"), modem_with(card("B", "b"), "ttyUSB10"),
                                      modem_with(card("C", "c"), "ttyUSB2")};
  EXPECT_EQ(choice.choose({}, ofono, {}), &ofono[0]);
  EXPECT_EQ(choice.choose(modems, ofono, {}), &modems[2]);
  modems.push_back(modem_with(card("D", "d"), "ttyUSB0"));
  EXPECT_EQ(choice.choose(modems, ofono, {}), &modems[2]) << "the one that is followed is kept";
  modems[2] = modem_with(no_card(), "ttyUSB2");
  EXPECT_EQ(choice.choose(modems, ofono, {}), &modems[3]) << "unless its card is out";
  modems.pop_back();
  EXPECT_EQ(choice.choose(modems, ofono, {}), nullptr) << "gone, but it may come back";
  EXPECT_EQ(choice.choose(modems, ofono, *choice.deadline()), &modems[1]);
}

}  // namespace
}  // namespace corvane
