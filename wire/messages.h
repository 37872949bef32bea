#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "plist/value.h"
#include "wire/methods.h"

/// Requests, responses and notifications: dictionaries that are sent as the bodies of raw-data frames. The daemon
/// and its clients build and read them here.
namespace corvane::wire {

inline constexpr std::string_view request_key = "Request";
inline constexpr std::string_view reply_key = "Reply";
inline constexpr std::string_view error_key = "Error";
inline constexpr std::string_view error_object_key = "ErrorObject";
inline constexpr std::string_view error_domain_key = "Domain";
inline constexpr std::string_view error_code_key = "Code";
inline constexpr std::string_view error_user_info_key = "UserInfo";
inline constexpr std::string_view error_description_key = "ErrorDescription";

inline constexpr std::string_view notification_key = "Notification";
inline constexpr std::string_view object_key = "Object";
inline constexpr std::string_view missed_key = "Missed";

/// A request for a method; its arguments are further entries.
plist::Ref<plist::MutableDictionary> make_request(std::string_view selector);

/// The selector that a request asks for, borrowed; null when it is missing or not a string.
plist::String* request_selector(const plist::Dictionary& request);

/// An error object as it is sent.
plist::Ref<plist::Dictionary> make_error_object(plist::Ref<plist::String> domain, int32_t code,
                                                plist::Ref<plist::Dictionary> user_info);

/// A response as a client sees it.
struct Response {
  plist::Ref<plist::Dictionary> reply;  ///< null: no dictionary
  bool failed = false;                  ///< the daemon answered with an error object
  std::string domain;
  int64_t code = 0;
  std::string description;
};

/// False where the dictionary is no response.
bool read_response(const plist::Dictionary& dictionary, Response& response);

/// The two messages that a subscriber is sent: a notification, and how many it has missed before the next one.
plist::Ref<plist::Dictionary> make_notification(const plist::String& name);
plist::Ref<plist::Dictionary> make_missed(int64_t count);

struct Notification {
  std::string name;  ///< empty where `missed` is not 0
  int64_t missed = 0;
};

/// False where the dictionary is neither.
bool read_notification(const plist::Dictionary& dictionary, Notification& notification);

}  // namespace corvane::wire
