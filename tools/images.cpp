#include "tools/images.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>

namespace corvane::tools {

using plist::cast;

namespace {

constexpr size_t name_limit = 200;

struct Format {
  std::string_view first_bytes;
  const char* ending;
};

constexpr Format formats[] = {
    {"\x89PNG", ".png"}, {"\xff\xd8\xff", ".jpg"}, {"GIF8", ".gif"}, {"%PDF", ".pdf"},
    {"<svg", ".svg"},    {"<?xml", ".xml"},        {"BM", ".bmp"},
};

const char* ending_for(std::string_view bytes) {
  for (const Format& format : formats) {
    if (bytes.starts_with(format.first_bytes)) return format.ending;
  }
  return ".bin";
}

// The name is made of keys, which hold whatever somebody stored; only characters that are safe in a file name
// stay.
std::string safe_file_name(const std::string& name) {
  std::string result = name;
  for (char& c : result) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!plain && c != '-' && c != '_') c = '_';
  }
  return result.empty() ? "_" : result;
}

// Cuts the name at once, so that a long key above many values is not copied for each of them.
std::string joined(const std::string& name, std::string_view part) {
  const std::string start = name.empty() ? name : name + "-";
  return (start + std::string(part.substr(0, name_limit))).substr(0, name_limit);
}

class Saver {
 public:
  explicit Saver(const std::string& folder) : folder_(folder) {}

  void visit(const plist::Value& value, const std::string& name) {
    if (const auto* data = cast<plist::Data>(&value)) return save(data->bytes(), name);
    if (const auto* dictionary = cast<plist::Dictionary>(&value)) {
      for (const plist::Dictionary::Entry& entry : dictionary->entries()) {
        visit(*entry.value, joined(name, entry.key->view()));
      }
    } else if (const auto* array = cast<plist::Array>(&value)) {
      visit_items(array->items(), name);
    } else if (const auto* set = cast<plist::Set>(&value)) {
      visit_items(set->items(), name);
    }
  }

  std::vector<std::string> paths;

 private:
  void visit_items(std::span<const plist::Ref<plist::Value>> items, const std::string& name) {
    for (size_t i = 0; i < items.size(); ++i) visit(*items[i], joined(name, std::to_string(i)));
  }

  // The second value of a name gets the number 2.
  std::string unused_name(const std::string& name, const char* ending) {
    const std::string stem = safe_file_name(name);
    int& number = last_numbers_[stem + ending];
    std::string candidate;
    do {
      candidate = stem + (++number == 1 ? "" : "-" + std::to_string(number)) + ending;
    } while (!names_.insert(candidate).second);
    return candidate;
  }

  void save(std::string_view bytes, const std::string& name) {
    const std::string path = folder_ + "/" + unused_name(name, ending_for(bytes));
    std::ofstream file(path, std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush();
    if (!file) throw std::runtime_error("could not write " + path + ": " + std::strerror(errno));
    paths.push_back(path);
  }

  const std::string folder_;
  std::set<std::string> names_;
  std::map<std::string, int> last_numbers_;
};

}  // namespace

std::vector<std::string> save_data_values(const plist::Value& value, const std::string& folder) {
  Saver saver(folder);
  saver.visit(value, "");
  return saver.paths;
}

}  // namespace corvane::tools
