#include "platform/linux/bus_properties.h"

#include <utility>

namespace corvane {

namespace {

// Fits every value of 32 bits.
bool read_bits(sd_bus_message& message, char type, uint32_t& bits) {
  return sd_bus_message_read_basic(&message, type, &bits) > 0;
}

bool read_text(sd_bus_message& message, char type, const char*& text) {
  return sd_bus_message_read_basic(&message, type, &text) > 0;
}

bool read_list(sd_bus_message& message, std::vector<std::string>& list) {
  if (sd_bus_message_enter_container(&message, 'a', "s") <= 0) return false;
  while (sd_bus_message_at_end(&message, 0) == 0) {
    const char* text = nullptr;
    if (!read_text(message, 's', text)) return false;
    const std::string_view found = text;
    if (list.size() < BusProperties::list_limit && found.size() <= BusProperties::text_limit)
      list.emplace_back(found);
  }
  return sd_bus_message_exit_container(&message) >= 0;
}

}  // namespace

bool BusProperties::read_value(sd_bus_message& message, std::string_view type, Value& value) {
  uint32_t bits = 0;
  if (type == "s" || type == "o") {
    const char* text = nullptr;
    if (!read_text(message, type.front(), text)) return false;
    if (std::string_view(text).size() <= text_limit) value = std::string(text);
    return true;
  }
  if (type == "b" || type == "i" || type == "u") {
    if (!read_bits(message, type.front(), bits)) return false;
    if (type == "b") value = bits != 0;
    if (type == "i") value = int64_t{static_cast<int32_t>(bits)};
    if (type == "u") value = int64_t{bits};
    return true;
  }
  if (type == "ay") {
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(&message, 'y', &bytes, &size) < 0) return false;
    if (size <= bytes_limit) value = Bytes{std::string(static_cast<const char*>(bytes), size)};
    return true;
  }
  if (type == "as") {
    std::vector<std::string> list;
    if (!read_list(message, list)) return false;
    value = std::move(list);
    return true;
  }
  return sd_bus_message_skip(&message, std::string(type).c_str()) >= 0;
}

bool BusProperties::read(sd_bus_message& message) {
  return each_entry(message, "sv", [&](std::string_view name) {
    char variant = 0;
    const char* type = nullptr;
    if (sd_bus_message_peek_type(&message, &variant, &type) <= 0) return false;
    if (sd_bus_message_enter_container(&message, 'v', type) <= 0) return false;
    Value value;
    if (!read_value(message, type, value) || sd_bus_message_exit_container(&message) < 0) return false;
    if (values_.size() < count_limit && name.size() <= text_limit) values_[std::string(name)] = std::move(value);
    return true;
  });
}

template <class T>
const T* BusProperties::find(std::string_view name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? nullptr : std::get_if<T>(&found->second);
}

std::string BusProperties::text(std::string_view name) const {
  const auto* text = find<std::string>(name);
  return text == nullptr ? "" : *text;
}

std::optional<int64_t> BusProperties::number(std::string_view name) const {
  const auto* number = find<int64_t>(name);
  if (number == nullptr) return std::nullopt;
  return *number;
}

std::optional<bool> BusProperties::flag(std::string_view name) const {
  const auto* flag = find<bool>(name);
  if (flag == nullptr) return std::nullopt;
  return *flag;
}

std::optional<std::string> BusProperties::bytes(std::string_view name) const {
  const auto* bytes = find<Bytes>(name);
  if (bytes == nullptr) return std::nullopt;
  return bytes->bytes;
}

const std::vector<std::string>& BusProperties::list(std::string_view name) const {
  static const std::vector<std::string> none;
  const auto* list = find<std::vector<std::string>>(name);
  return list == nullptr ? none : *list;
}

}  // namespace corvane
