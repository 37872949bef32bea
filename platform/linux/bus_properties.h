#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <systemd/sd-bus.h>
#include <variant>
#include <vector>

namespace corvane {

/// The properties of an object on the bus. One that has another type than the one asked for, or was too long to be
/// kept, is unknown like one that is not there.
class BusProperties {
 public:
  static constexpr size_t text_limit = 1024;
  static constexpr size_t bytes_limit = 255;
  static constexpr size_t list_limit = 64;    ///< texts of a list; the others are dropped
  static constexpr size_t count_limit = 256;  ///< properties; the others are dropped

  /// Takes those of the a{sv} at the message's place. False where the message is malformed.
  bool read(sd_bus_message& message);

  std::string text(std::string_view name) const;               ///< a string or an object path; empty where unknown
  std::optional<int64_t> number(std::string_view name) const;  ///< of 32 bits
  std::optional<bool> flag(std::string_view name) const;
  bool is_set(std::string_view name) const { return flag(name).value_or(false); }
  std::optional<std::string> bytes(std::string_view name) const;
  const std::vector<std::string>& list(std::string_view name) const;  ///< of texts; empty where unknown
  bool has(std::string_view name) const { return values_.find(name) != values_.end(); }

 private:
  struct Bytes {
    std::string bytes;
  };
  using Value = std::variant<std::monostate, bool, int64_t, std::string, Bytes, std::vector<std::string>>;

  static bool read_value(sd_bus_message& message, std::string_view type, Value& value);
  template <class T>
  const T* find(std::string_view name) const;

  std::map<std::string, Value, std::less<>> values_;
};

/// Calls `visit(key)` for each entry of the dictionary at the message's place, whose type is a{ENTRY}. `visit`
/// reads the rest of the entry, and returns false where it cannot. False where the message is malformed.
template <class Visit>
bool each_entry(sd_bus_message& message, const char* entry, Visit visit) {
  const std::string in_braces = "{" + std::string(entry) + "}";
  if (sd_bus_message_enter_container(&message, 'a', in_braces.c_str()) <= 0) return false;
  for (;;) {
    const int entered = sd_bus_message_enter_container(&message, 'e', entry);
    if (entered < 0) return false;
    if (entered == 0) return sd_bus_message_exit_container(&message) >= 0;
    const char* key = nullptr;
    if (sd_bus_message_read_basic(&message, entry[0], &key) <= 0) return false;
    if (!visit(std::string_view(key)) || sd_bus_message_exit_container(&message) < 0) return false;
  }
}

}  // namespace corvane
