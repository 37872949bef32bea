#include "tools/images.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <set>
#include <stdexcept>
#include <unistd.h>

#include "client/image_format.h"
#include "tools/files.h"
#include "tools/sorted.h"

namespace corvane::tools {

using plist::cast;

namespace {

constexpr size_t name_limit = 200;

class Walk {
 public:
  explicit Walk(const std::function<void(const FoundData&)>& visit) : visit_(visit) {}

  // As deep as a property list may be, which the readers bound.
  void enter(const plist::Value& value, const plist::Dictionary* owner) {
    if (const auto* data = cast<plist::Data>(&value)) return visit_({data->bytes(), path_, owner});
    if (const auto* dictionary = cast<plist::Dictionary>(&value)) return enter_entries(*dictionary);
    if (const auto* array = cast<plist::Array>(&value)) return enter_items(array->items());
    if (const auto* set = cast<plist::Set>(&value)) return enter_items(set->items());
  }

 private:
  void enter_entries(const plist::Dictionary& dictionary) {
    for (const auto& [key, value] : sorted(dictionary)) step(std::string(key), *value, &dictionary);
  }

  void enter_items(std::span<const plist::Ref<plist::Value>> items) {
    for (size_t i = 0; i < items.size(); ++i) step(std::to_string(i), *items[i], nullptr);
  }

  void step(std::string part, const plist::Value& value, const plist::Dictionary* owner) {
    path_.push_back(std::move(part));
    enter(value, owner);
    path_.pop_back();
  }

  const std::function<void(const FoundData&)>& visit_;
  std::vector<std::string> path_;
};

// The name is made of keys, which hold whatever somebody stored; only characters that are safe in a file name
// stay.
std::string safe_file_name(std::string name) {
  for (char& c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!plain && c != '-' && c != '_') c = '_';
  }
  return name.empty() ? "_" : name;
}

// Cuts at each step, so that long keys above many values are not copied for each of them.
std::string joined(const std::vector<std::string>& path) {
  std::string name;
  for (const std::string& part : path) {
    if (!name.empty()) name += '-';
    name = (name + part.substr(0, name_limit)).substr(0, name_limit);
  }
  return name;
}

// A link is not followed: the names are made of what somebody stored, and it could lead to any file. A pipe is not
// waited for.
void write_new_content(const std::string& path, std::string_view bytes) {
  const int descriptor =
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  const bool is_written = descriptor >= 0 && write_all(descriptor, bytes);
  const int error = errno;
  if (descriptor >= 0) close(descriptor);
  if (!is_written) throw std::runtime_error("could not write " + path + ": " + std::strerror(error));
}

class Saver {
 public:
  explicit Saver(const std::string& folder) : folder_(folder) {}

  void save(const FoundData& data) {
    const std::string path =
        folder_ + "/" + unused_name(joined(data.path), client::image_format(data.bytes).extension);
    write_new_content(path, data.bytes);
    paths.push_back(path);
  }

  std::vector<std::string> paths;

 private:
  // The second value of a name gets the number 2.
  std::string unused_name(const std::string& name, const std::string& extension) {
    const std::string stem = safe_file_name(name), ending = "." + extension;
    int& number = last_numbers_[stem + ending];
    std::string candidate;
    do {
      candidate = stem + (++number == 1 ? "" : "-" + std::to_string(number)) + ending;
    } while (!names_.insert(candidate).second);
    return candidate;
  }

  const std::string folder_;
  std::set<std::string> names_;
  std::map<std::string, int> last_numbers_;
};

}  // namespace

void for_each_data(const plist::Value& value, const std::function<void(const FoundData&)>& visit) {
  Walk(visit).enter(value, nullptr);
}

std::vector<std::string> save_data_values(const plist::Value& value, const std::string& folder) {
  Saver saver(folder);
  for_each_data(value, [&](const FoundData& data) { saver.save(data); });
  return saver.paths;
}

}  // namespace corvane::tools
