#include "fuzz/random_frames.h"

#include <string_view>

#include "plist/writer.h"
#include "tests/support/daemon_process.h"
#include "wire/frame.h"
#include "wire/messages.h"

namespace corvane::fuzz {

namespace {

// Images come back in answers of megabytes, so only few requests ask for them.
constexpr size_t requests_for_each_images_request = 5000;

constexpr uint8_t unknown_kind = 7;

std::string binary_body(const plist::Value& value) { return testing::frame(value).substr(wire::header_size); }

// Adds a value of every kind, and a deep one.
void add_values(plist::MutableDictionary& request) {
  request.set(wire::pid_key, plist::Number::create_int32(1));
  request.set("real", plist::Number::create_real(0.5));
  request.set("date", plist::Date::create(1e9));
  request.set("data", plist::Data::create(std::string(300, 'd')));
  request.set("text", plist::String::create("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\x01"));
  auto nest = plist::MutableArray::create();
  auto set = plist::MutableSet::create();
  for (int i = 0; i < 20; ++i) {
    auto outer = plist::MutableArray::create();
    outer->append(nest);
    outer->append(plist::String::create(std::to_string(i)));
    nest = outer;
    set->add(plist::Number::create_int32(i));
  }
  request.set("nest", nest);
  request.set("set", set);
}

}  // namespace

RandomFrames::RandomFrames(uint64_t seed)
    : random_(seed), images_request_(binary_body(*wire::make_request(wire::copy_regulatory_images))) {
  for (const std::string_view selector :
       {std::string_view("something"), wire::store_regulatory_images, wire::copy_entitlements}) {
    const auto small = wire::make_request(selector);
    const auto large = wire::make_request(selector);
    add_values(*large);
    for (const auto& request : {small, large}) {
      requests_.push_back(binary_body(*request));
      std::string xml;
      if (!plist::encode_xml(*request, xml)) requests_.push_back(xml);
    }
  }
}

std::string RandomFrames::next() {
  return testing::frame(random_body(), below(50) == 0 ? unknown_kind : wire::raw_data_kind);
}

std::string RandomFrames::next_with_bad_header() {
  std::string frame = next();
  frame[below(wire::header_size)] = random_bytes(1)[0];
  return frame;
}

size_t RandomFrames::below(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(random_); }

std::string RandomFrames::random_body() {
  if (below(requests_for_each_images_request) == 0) return images_request_;
  std::string body = any_request();
  switch (below(8)) {
    case 0:
      return body;
    case 1:
      return (below(2) == 0 ? "bplist00" : "") + random_bytes(below(400));
    case 2:
      return body.substr(0, below(body.size() + 1));
    case 3:
      return spliced(body);
    default:
      for (size_t changes = 1 + below(6); changes > 0 && !body.empty(); --changes) mutate(body);
      return body;
  }
}

std::string RandomFrames::random_bytes(size_t count) {
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random_());
  return bytes;
}

std::string RandomFrames::spliced(const std::string& body) {
  const std::string& other = any_request();
  return body.substr(0, below(body.size())) + other.substr(below(other.size()));
}

void RandomFrames::mutate(std::string& body) {
  const size_t at = below(body.size());
  switch (below(4)) {
    case 0:
      body[at] = static_cast<char>(body[at] ^ (1 << below(8)));
      return;
    case 1:
      body[at] = "\x00\xff\x7f\x80\x01<>&"[below(8)];
      return;
    case 2:
      body.insert(at, body.substr(below(body.size()), below(64)));
      return;
    default:
      body.erase(at, below(16));
  }
}

const std::string& RandomFrames::any_request() { return requests_[below(requests_.size())]; }

}  // namespace corvane::fuzz
