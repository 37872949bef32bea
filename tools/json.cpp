#include "tools/json.h"

#include <nlohmann/json.hpp>

#include <cmath>

#include "plist/base64_text.h"
#include "plist/describe.h"

namespace corvane::tools {

using nlohmann::json;
using plist::cast;

namespace {

json tree(const plist::Value& value);

json items(std::span<const plist::Ref<plist::Value>> values) {
  json array = json::array();
  for (const plist::Ref<plist::Value>& value : values) array.push_back(tree(*value));
  return array;
}

json object(const plist::Dictionary& dictionary) {
  json entries = json::object();
  for (const plist::Dictionary::Entry& entry : dictionary.entries()) {
    entries[std::string(entry.key->view())] = tree(*entry.value);
  }
  return entries;
}

json data(const plist::Data& value) {
  std::string text;
  plist::append_base64(text, value.bytes());
  return {{"$data", text}};
}

json date(const plist::Date& value) {
  const std::string text = plist::date_text(value);
  return {{"$date", text.empty() ? json(value.seconds()) : json(text)}};
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

}  // namespace

std::string to_json(const plist::Value& value) { return tree(value).dump(1); }

std::string json_quoted(std::string_view text) { return json(std::string(text)).dump(); }

}  // namespace corvane::tools
