#pragma once

#include <string>
#include <string_view>

#include "plist/value.h"

/// A small world of cards, and what the daemon stores of them.
namespace corvane::fuzz {

inline constexpr int card_count = 4;

inline std::string identity_of(int card) { return "identity " + std::to_string(card); }
inline std::string subscriber_of(int card) { return "subscriber " + std::to_string(card); }

/// Whether two facts are of two cards. What is empty belongs to every card.
inline bool is_mix(std::string_view identity, std::string_view subscriber) {
  if (identity.empty() || subscriber.empty()) return false;
  return identity.substr(identity.rfind(' ')) != subscriber.substr(subscriber.rfind(' '));
}

/// Null where the value is no string.
inline const plist::String* text_in(const plist::Ref<plist::Value>& value) {
  return plist::cast<plist::String>(value.get());
}

/// What look-ups store. Empty: nothing is stored.
struct StoredFacts {
  std::string status, identity, subscriber;

  /// The first step of a look-up.
  void take_status(const plist::Ref<plist::Value>& now) {
    const auto* text = text_in(now);
    status = text == nullptr ? "" : text->view();
  }
  /// The other step, with what one connection answers.
  void take_identities(const plist::Ref<plist::Value>& identity_now,
                       const plist::Ref<plist::Value>& subscriber_now) {
    if (const auto* text = text_in(identity_now)) identity = text->view();
    if (const auto* text = text_in(subscriber_now)) subscriber = text->view();
  }
};

}  // namespace corvane::fuzz
