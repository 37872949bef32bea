// Loads a data ark from an arbitrary file, runs operations on it, and compares its answers with those of a plain
// map; then stores it and loads it again. The input: the number of operations, four bytes for each, and the file.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/ensure.h"
#include "plist/reader.h"
#include "state/data_ark.h"
#include "tests/support/test_platform.h"

namespace corvane::fuzz {

using plist::Ref;
using plist::String;
using testing::TestPlatform;

namespace {

/// A plain map that gives the answers an ark must give.
class Model {
 public:
  explicit Model(std::string_view file) {
    const plist::Decoded decoded = plist::decode(plist::Data::create(file), plist::Containers::immutable);
    const auto* dictionary = plist::cast<plist::Dictionary>(decoded.value.get());
    if (dictionary == nullptr) return;
    exists_ = true;
    for (const auto& entry : dictionary->entries()) values_[std::string(entry.key->view())] = entry.value;
  }

  void set(const std::string& domain_key, const std::string& key, bool inherits, const Ref<plist::Value>& value) {
    exists_ = true;
    if (values_.count(key) == 0 && inherits) {
      if (const unsigned inherited = attributes(domain_key)) attributes_[key] |= inherited;
    }
    values_[key] = value;
  }
  bool remove(const std::string& key) {
    if (values_.erase(key) != 0) attributes_.erase(key);
    return exists_;
  }
  void set_attribute(const std::string& key, unsigned index) { attributes_[key] |= 1u << index; }
  void clear_attribute(const std::string& key, unsigned index) { attributes_[key] &= ~(1u << index); }
  unsigned attributes(const std::string& key) const {
    const auto found = attributes_.find(key);
    return found == attributes_.end() ? 0 : found->second;
  }
  plist::Value* get(const std::string& key) const {
    const auto found = values_.find(key);
    return found == values_.end() ? nullptr : found->second.get();
  }
  const std::map<std::string, Ref<plist::Value>>& values() const { return values_; }
  bool exists() const { return exists_; }

  /// Keeps what a store writes and a load reads.
  void reload() {
    std::erase_if(values_, [this](const auto& entry) {
      return (attributes(entry.first) & (1u << ARK_NOT_STORED | 1u << ARK_ALSO_NOT_STORED)) != 0;
    });
    attributes_.clear();
    exists_ = !values_.empty();
  }

 private:
  bool exists_ = false;
  std::map<std::string, Ref<plist::Value>> values_;
  std::map<std::string, unsigned> attributes_;
};

/// One key: in two parts for the ark, and composed for the model.
struct Key {
  Key(Ref<String> domain_part, Ref<String> key_part) : domain(std::move(domain_part)), key(std::move(key_part)) {
    domain_key = (domain ? std::string(domain->view()) : "") + "-";
    full = domain_key + (key ? std::string(key->view()) : "");
  }
  Ref<String> domain;
  Ref<String> key;
  std::string domain_key;
  std::string full;
};

class Run {
 public:
  explicit Run(std::string_view file) : model_(file) {
    for (const auto& [key, value] : model_.values()) {
      if (found_.size() == 8) break;
      found_.push_back(key);
      found_values_.push_back(value);
    }
    load();
  }

  void operate(const uint8_t (&bytes)[4]);
  void store_and_load() {
    data_ark_store(ark_.get());
    ENSURE(data_ark_dirty_count(ark_.get()) == 0);
    model_.reload();
    load();
  }

 private:
  // Runs the callbacks that are scheduled, because they end with the ark that they were registered with.
  void load() {
    testing::TestPlatform::installed().run_main_queue();
    ark_ = data_ark_load();
    ENSURE(ark_ && data_ark_dirty_count(ark_.get()) == 0);
    expect_everything();
  }
  Key key(uint8_t byte) const;
  Ref<plist::Value> value(uint8_t byte) const;
  void expect_domain(const Key& key) const;
  void expect_everything() const;

  Model model_;
  std::vector<std::string> found_;
  std::vector<Ref<plist::Value>> found_values_;
  DataArk ark_;
};

// So few keys that operations meet on them; some are keys of the file.
Key Run::key(uint8_t byte) const {
  static const Ref<String> parts[] = {nullptr, String::create(""), String::create("a"), String::create("a-b")};
  if (byte < 128 || found_.empty()) return {parts[byte & 3], parts[byte >> 2 & 3]};
  // No operation can ask for a composed key that has no separator. As a key without a domain it is another one.
  const std::string& composed = found_[byte % found_.size()];
  const size_t separator = composed.find('-');
  if (separator == composed.npos) return {nullptr, String::create(composed)};
  return {String::create(composed.substr(0, separator)), String::create(composed.substr(separator + 1))};
}

Ref<plist::Value> Run::value(uint8_t byte) const {
  if (byte >= 128 && !found_values_.empty()) return found_values_[byte % found_values_.size()];
  switch (byte & 3) {
    case 0:
      return String::create("2147483648 text");
    case 1:
      return plist::Boolean::yes();
    case 2:
      return plist::Number::create_int64(byte - 40);
    default:
      return plist::Number::create_real(byte * 1e18);
  }
}

void Run::operate(const uint8_t (&bytes)[4]) {
  data_ark* ark = ark_.get();
  const Key at = key(bytes[1]);
  const String* domain = at.domain.get();
  const String* name = at.key.get();
  const unsigned index = bytes[2] % 10;
  const bool known_index = index < ark_attribute_count;
  switch (bytes[0] % 8) {
    case 0:
    case 1:
      ENSURE(data_ark_set(ark, domain, name, value(bytes[2]).get()) == 0);
      model_.set(at.domain_key, at.full, name != nullptr, value(bytes[2]));
      break;
    case 2:
      ENSURE((data_ark_remove(ark, domain, name) == 0) == model_.remove(at.full));
      break;
    case 3:
      ENSURE((data_ark_set_attribute(ark, domain, name, index) == 0) == known_index);
      if (known_index) model_.set_attribute(at.full, index);
      break;
    case 4:
      ENSURE((data_ark_clear_attribute(ark, domain, name, index) == 0) == known_index);
      if (known_index) model_.clear_attribute(at.full, index);
      break;
    case 5:
      ENSURE(data_ark_watch(ark, domain, name, String::create("n"), bytes[2] & 7) == 0);
      ENSURE(data_ark_watch_block(
                 ark, domain, name, [] {}, bytes[3] & 7) == 0);
      break;
    case 6:
      expect_domain(at);
      ENSURE(data_ark_get_int(ark, domain, name) == 0 || name != nullptr);
      ENSURE(data_ark_get_int64(ark, domain, name) == 0 || name != nullptr);
      break;
    case 7:
      store_and_load();
      return;
  }
  for (unsigned i = 0; i < ark_attribute_count; ++i) {
    ENSURE(data_ark_has_attribute(ark, domain, name, i) == ((model_.attributes(at.full) >> i & 1) != 0));
  }
  ENSURE(data_ark_exists(ark, domain, name) == (model_.get(at.full) != nullptr));
  if (name == nullptr) return;
  ENSURE(plist::equal(data_ark_copy(ark, domain, name).get(), model_.get(at.full)));
}

void Run::expect_domain(const Key& at) const {
  const Ref<plist::Value> copy = data_ark_copy(ark_.get(), at.domain.get(), nullptr);
  const auto* entries = plist::cast<plist::MutableDictionary>(copy.get());
  ENSURE((entries != nullptr) == model_.exists());
  if (entries == nullptr) return;
  size_t count = 0;
  for (const auto& [key, value] : model_.values()) {
    if (!key.starts_with(at.domain_key)) continue;
    ENSURE(plist::equal(entries->get(key.substr(at.domain_key.size())), value.get()));
    ++count;
  }
  ENSURE(entries->size() == count);
}

void Run::expect_everything() const {
  for (const auto& [composed, value] : model_.values()) {
    const size_t separator = composed.find('-');
    if (separator == composed.npos) continue;
    const Key at(String::create(composed.substr(0, separator)), String::create(composed.substr(separator + 1)));
    ENSURE(plist::equal(data_ark_copy(ark_.get(), at.domain.get(), at.key.get()).get(), value.get()));
  }
  expect_domain({nullptr, nullptr});
}

}  // namespace
}  // namespace corvane::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace corvane;
  static testing::TestPlatform& platform = testing::TestPlatform::fresh();
  static const std::string folder = platform.root() + "/private/var/mobile/Library/cvd";
  if (size == 0) return 0;
  const size_t operations = std::min<size_t>(bytes[0] % 64, (size - 1) / 4);
  const std::string_view file(reinterpret_cast<const char*>(bytes) + 1 + 4 * operations,
                              size - 1 - 4 * operations);

  std::filesystem::create_directory(folder);
  testing::write_file(folder + "/data_ark.plist", file);
  {
    fuzz::Run run(file);
    for (size_t i = 0; i < operations; ++i) {
      const uint8_t* at = bytes + 1 + 4 * i;
      run.operate({at[0], at[1], at[2], at[3]});
    }
    run.store_and_load();
  }
  // A file that could not be read was renamed, and must not be there for the next input.
  for (const auto& entry : std::filesystem::directory_iterator(folder)) std::filesystem::remove(entry.path());
  platform.take_lines();
  platform.posted.clear();
  return 0;
}
