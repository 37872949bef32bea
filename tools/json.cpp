#include "tools/json.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <stdexcept>

#include "plist/base64_text.h"
#include "plist/describe.h"
#include "plist/reader.h"
#include "plist/xml_leaf.h"

namespace corvane::tools {

using nlohmann::json;
using plist::cast;
using plist::Ref;

namespace {

json tree(const plist::Value& value);

json items(std::span<const plist::Ref<plist::Value>> values) {
  json array = json::array();
  for (const plist::Ref<plist::Value>& value : values) array.push_back(tree(*value));
  return array;
}

// Whether an object reads as something that JSON lacks.
bool is_tagged(const json& object) { return object.size() == 1 && object.begin().key().starts_with('$'); }

json object(const plist::Dictionary& dictionary) {
  json entries = json::object();
  for (const plist::Dictionary::Entry& entry : dictionary.entries()) {
    entries[std::string(entry.key->view())] = tree(*entry.value);
  }
  if (is_tagged(entries)) return {{"$dict", std::move(entries)}};
  return entries;
}

json data(const plist::Data& value) {
  std::string text;
  plist::append_base64(text, value.bytes());
  return {{"$data", text}};
}

json date(const plist::Date& value) {
  const std::string text = plist::date_text(value);
  const bool is_negative_zero = value.seconds() == 0 && std::signbit(value.seconds());
  const bool is_exact = !text.empty() && std::floor(value.seconds()) == value.seconds() && !is_negative_zero;
  return {{"$date", is_exact ? json(text) : json(value.seconds())}};
}

json number(const plist::Number& value) {
  if (value.type() == plist::Number::Type::uint64) return value.uint64();
  if (value.is_integer()) return value.int64();
  if (std::isfinite(value.real())) return value.real();
  if (std::isnan(value.real())) return {{"$real", "nan"}};
  return {{"$real", value.real() > 0 ? "inf" : "-inf"}};
}

// As deep as a property list may be, which the readers bound.
json tree(const plist::Value& value) {
  switch (value.kind()) {
    case plist::Kind::dictionary:
      return object(*cast<plist::Dictionary>(&value));
    case plist::Kind::array:
      return items(cast<plist::Array>(&value)->items());
    case plist::Kind::set:
      return {{"$set", items(cast<plist::Set>(&value)->items())}};
    case plist::Kind::string:
      return std::string(cast<plist::String>(&value)->view());
    case plist::Kind::data:
      return data(*cast<plist::Data>(&value));
    case plist::Kind::date:
      return date(*cast<plist::Date>(&value));
    case plist::Kind::number:
      return number(*cast<plist::Number>(&value));
    case plist::Kind::boolean:
      return cast<plist::Boolean>(&value)->value();
  }
  return nullptr;
}

// ---- from JSON ----------------------------------------------------------------------------------------

Ref<plist::Value> value_of(const json& tree);

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument(what); }

Ref<plist::Value> date_of(const json& content) {
  const auto seconds = plist::parse_date(content.get<std::string>());
  if (!seconds) refuse("not a date: " + content.dump());
  return plist::Date::create(*seconds);
}

Ref<plist::Value> data_of(const json& content) {
  std::string bytes;
  if (!plist::decode_base64(content.get<std::string>(), bytes)) refuse("not Base64: " + content.dump());
  return plist::Data::create(bytes);
}

Ref<plist::Value> set_of(const json& content) {
  Ref<plist::MutableSet> set = plist::MutableSet::create();
  for (const json& member : content) set->add(value_of(member));
  return set;
}

Ref<plist::Value> real_of(const json& content) {
  const Ref<plist::Number> number = plist::parse_real(content.get<std::string>());
  if (!number) refuse("not a real: " + content.dump());
  return number;
}

Ref<plist::Value> dictionary_of(const json& object) {
  Ref<plist::MutableDictionary> dictionary = plist::MutableDictionary::create();
  for (const auto& [key, content] : object.items()) dictionary->set(key, value_of(content));
  return dictionary;
}

Ref<plist::Value> tagged_value(const std::string& tag, const json& content) {
  if (tag == "$data" && content.is_string()) return data_of(content);
  if (tag == "$date" && content.is_string()) return date_of(content);
  if (tag == "$date" && content.is_number()) return plist::Date::create(content.get<double>());
  if (tag == "$set" && content.is_array()) return set_of(content);
  if (tag == "$real" && content.is_string()) return real_of(content);
  if (tag == "$dict" && content.is_object()) return dictionary_of(content);
  refuse("not a value: {\"" + tag + "\": ...}; a dictionary like that is written {\"$dict\": {...}}");
}

Ref<plist::Value> value_of(const json& tree) {
  switch (tree.type()) {
    case json::value_t::object:
      return is_tagged(tree) ? tagged_value(tree.begin().key(), tree.front()) : dictionary_of(tree);
    case json::value_t::array: {
      Ref<plist::MutableArray> array = plist::MutableArray::create();
      for (const json& item : tree) array->append(value_of(item));
      return array;
    }
    case json::value_t::string:
      return plist::String::create(tree.get<std::string>());
    case json::value_t::boolean:
      return plist::Boolean::of(tree.get<bool>());
    case json::value_t::number_integer:
      return plist::Number::create_int64(tree.get<int64_t>());
    case json::value_t::number_unsigned:
      return plist::Number::create_uint64(tree.get<uint64_t>());
    case json::value_t::number_float:
      return plist::Number::create_real(tree.get<double>());
    default:
      refuse("a property list has no null");
  }
}

}  // namespace

plist::Ref<plist::Value> from_json(const std::string& text) {
  // The deepest value that a property list can hold, with a tag around each container and each leaf.
  constexpr int depth_limit = 2 * plist::max_depth + 1;
  const auto check_depth = [](int depth, json::parse_event_t, const json&) {
    if (depth > depth_limit) refuse("the JSON nests too deeply");
    return true;
  };
  try {
    return value_of(json::parse(text, check_depth));
  } catch (const json::parse_error& error) {
    refuse("not JSON: fault at byte " + std::to_string(error.byte));
  } catch (const json::out_of_range&) {
    refuse("the JSON has a number that is too large");
  }
}

std::string to_json(const plist::Value& value) { return tree(value).dump(1); }

std::string to_json_line(const plist::Value& value) { return tree(value).dump(); }

}  // namespace corvane::tools
