// Everything is counted before it is appended, because a property list that refers to the same large value many
// times takes much more room in a message than it does in memory.

#include "bus/variant_dictionary.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace corvane::bus {

using plist::cast;

namespace {

class Writer {
 public:
  explicit Writer(sd_bus_message& message) : message_(message) {}

  /// `depth`, here and below, is how many containers are open around the value.
  bool append_entries(const plist::Dictionary& dictionary, unsigned depth);
  const char* fault() const { return fault_; }
  /// The negative errno of what sd-bus could not do for want of memory; otherwise 0.
  int error() const { return error_; }

 private:
  bool append_variant(const plist::Value& value, unsigned depth);
  bool append(const plist::Value& value, unsigned depth);
  bool append_text(const plist::String& text);
  bool append_data(const plist::Data& data);
  bool append_number(const plist::Number& number);
  bool append_date(const plist::Date& date);
  bool append_set(const plist::Set& set, unsigned depth);
  bool append_items(std::span<const plist::Ref<plist::Value>> items, unsigned depth);

  bool open(char type, const char* contents) {
    return took(sd_bus_message_open_container(&message_, type, contents));
  }
  bool close() { return took(sd_bus_message_close_container(&message_)); }
  bool append_basic(char type, const void* value) {
    return took(sd_bus_message_append_basic(&message_, type, value));
  }
  bool count(size_t bytes);
  bool took(int result);
  bool refuse(const char* fault);

  sd_bus_message& message_;
  size_t size_ = 0;
  const char* fault_ = nullptr;
  int error_ = 0;
};

bool Writer::refuse(const char* fault) {
  fault_ = fault;
  return false;
}

// Depth and size are checked before sd-bus is asked. Text is all that is left for it to refuse.
bool Writer::took(int result) {
  if (result == -EINVAL) return refuse("text with U+0000 or a noncharacter");
  error_ = std::min(result, 0);
  return error_ == 0;
}

bool Writer::count(size_t bytes) {
  if (bytes > size_limit - size_) return refuse("more than 31 MiB");
  size_ += bytes;
  return true;
}

const char* signature_of(const plist::Value& value) {
  switch (value.kind()) {
    case plist::Kind::dictionary:
      return "a{sv}";
    case plist::Kind::array:
      return "av";
    case plist::Kind::set:
      return "(sav)";
    case plist::Kind::string:
      return "s";
    case plist::Kind::data:
      return "ay";
    case plist::Kind::date:
      return "(sd)";
    case plist::Kind::number:
      break;
    case plist::Kind::boolean:
      return "b";
  }
  switch (cast<plist::Number>(&value)->type()) {
    case plist::Number::Type::real:
      return "d";
    case plist::Number::Type::uint64:
      return "t";
    default:
      return "x";
  }
}

bool Writer::append_text(const plist::String& text) {
  const std::string_view view = text.view();
  const char* characters = text.c_string();
  if (characters == nullptr) return took(-EINVAL);
  return count(view.size()) && append_basic('s', characters);
}

bool Writer::append_data(const plist::Data& data) {
  const std::string_view bytes = data.bytes();
  return count(bytes.size()) && took(sd_bus_message_append_array(&message_, 'y', bytes.data(), bytes.size()));
}

bool Writer::append_number(const plist::Number& number) {
  if (!number.is_integer()) {
    const double real = number.real();
    return append_basic('d', &real);
  }
  const int64_t bits = number.int64();
  return append_basic(number.type() == plist::Number::Type::uint64 ? 't' : 'x', &bits);
}

bool Writer::append_date(const plist::Date& date) {
  const double seconds = date.seconds();
  return open('r', "sd") && append_basic('s', "date") && append_basic('d', &seconds) && close();
}

bool Writer::append_set(const plist::Set& set, unsigned depth) {
  return open('r', "sav") && append_basic('s', "set") && append_items(set.items(), depth + 1) && close();
}

bool Writer::append_items(std::span<const plist::Ref<plist::Value>> items, unsigned depth) {
  if (!open('a', "v")) return false;
  for (const plist::Ref<plist::Value>& item : items) {
    if (!append_variant(*item, depth + 1)) return false;
  }
  return close();
}

bool Writer::append_entries(const plist::Dictionary& dictionary, unsigned depth) {
  if (!open('a', "{sv}")) return false;
  for (const plist::Dictionary::Entry& entry : dictionary.entries()) {
    const bool appended = count(size_of_value) && open('e', "sv") && append_text(*entry.key) &&
                          append_variant(*entry.value, depth + 2) && close();
    if (!appended) return false;
  }
  return close();
}

bool Writer::append_variant(const plist::Value& value, unsigned depth) {
  return count(size_of_value) && open('v', signature_of(value)) && append(value, depth + 1) && close();
}

bool Writer::append(const plist::Value& value, unsigned depth) {
  if (depth > depth_limit) return refuse("a nesting that is too deep");
  switch (value.kind()) {
    case plist::Kind::dictionary:
      return append_entries(*cast<plist::Dictionary>(&value), depth);
    case plist::Kind::array:
      return append_items(cast<plist::Array>(&value)->items(), depth);
    case plist::Kind::set:
      return append_set(*cast<plist::Set>(&value), depth);
    case plist::Kind::string:
      return append_text(*cast<plist::String>(&value));
    case plist::Kind::data:
      return append_data(*cast<plist::Data>(&value));
    case plist::Kind::date:
      return append_date(*cast<plist::Date>(&value));
    case plist::Kind::number:
      return append_number(*cast<plist::Number>(&value));
    case plist::Kind::boolean: {
      const int flag = cast<plist::Boolean>(&value)->value() ? 1 : 0;
      return append_basic('b', &flag);
    }
  }
  return false;
}

}  // namespace

int append_dictionary(sd_bus_message& message, const plist::Dictionary& dictionary, const char*& fault) {
  Writer writer(message);
  if (writer.append_entries(dictionary, 0)) return 0;
  if (writer.fault() == nullptr) return writer.error();
  fault = writer.fault();
  return -EINVAL;
}

}  // namespace corvane::bus
