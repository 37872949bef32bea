#include "state/values.h"

#include <new>

#include "state/end_process.h"

namespace corvane {

namespace {

plist::Ref<plist::Value> mutable_copy(const plist::Value* value) {
  if (const auto* dictionary = plist::cast<plist::Dictionary>(value)) {
    return plist::MutableDictionary::copy(*dictionary);
  }
  const auto* data = plist::cast<plist::Data>(value);
  if (data == nullptr) return nullptr;
  auto copy = plist::MutableData::create(data->bytes().size());
  data->bytes().copy(copy->mutable_bytes(), copy->bytes().size());
  return copy;
}

}  // namespace

plist::Ref<plist::MutableDictionary> create_dict() {
  try {
    return plist::MutableDictionary::create();
  } catch (const std::bad_alloc&) {
    end_process("create_dict", "Could not create mutable dictionary! We are dead!");
  }
}

plist::Ref<plist::MutableArray> create_array() {
  try {
    return plist::MutableArray::create();
  } catch (const std::bad_alloc&) {
    end_process("create_array", "Could not create mutable dictionary! We are dead!");
  }
}

plist::Ref<plist::Value> make_mutable(plist::Ref<plist::Value> value) {
  try {
    if (auto copy = mutable_copy(value.get())) return copy;
  } catch (const std::bad_alloc&) {
  }
  end_process("make_mutable", "Could not create mutable copy! We are dead!");
}

void DictionaryAddInt(plist::MutableDictionary& dictionary, std::string_view key, int32_t value) {
  try {
    dictionary.add(key, plist::Number::create_int32(value));
  } catch (const std::bad_alloc&) {
    end_process("DictionaryAddInt", "Out of Memory!");
  }
}

plist::Ref<plist::MutableArray> copy_keys(const plist::Dictionary* dictionary) {
  plist::Ref<plist::MutableArray> keys = create_array();
  if (dictionary == nullptr) return keys;
  try {
    for (const plist::Dictionary::Entry& entry : dictionary->entries()) keys->append(entry.key);
  } catch (const std::bad_alloc&) {
    end_process("copy_keys", "Could not allocate key list. We are dead.");
  }
  return keys;
}

plist::Value* _extract_first_item(const plist::Dictionary& dictionary) {
  return dictionary.size() == 0 ? nullptr : dictionary.entries().front().value.get();
}

}  // namespace corvane
