// The image walk of corvane.h. It keeps one entry for each level of nesting and the name that has led there, so
// that its memory does not grow with the number of images.

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/boundary.h"
#include "client/image_format.h"

using corvane::client::from_c;
using corvane::plist::cast;
using corvane::plist::Ref;
namespace client = corvane::client;
namespace plist = corvane::plist;

struct corvane_images {
  struct Level {
    const corvane_value* container;
    size_t next;         ///< the position of the child to visit next
    size_t name_length;  ///< of the container's own name
  };

  // Whether the value is an image. A container is to be walked next.
  bool enter(const corvane_value* value) {
    if (from_c(value)->is_container()) levels.push_back({value, 0, name.size()});
    return cast<plist::Data>(from_c(value)) != nullptr;
  }
  const corvane_value* next_image();
  void append_name(const Level& level, size_t position);

  const Ref<plist::Value> root;
  const corvane_value* unvisited = client::to_c(root.get());
  std::vector<Level> levels{};
  std::string name{};
  bool is_over = false;  ///< memory was out, and an image may have been passed
};

void corvane_images::append_name(const Level& level, size_t position) {
  name.resize(level.name_length);
  if (levels.size() > 1) name += '/';
  size_t length = 0;
  if (const char* key = corvane_value_key_at(level.container, position, &length)) {
    name.append(key, length);
  } else {
    name += std::to_string(position);
  }
}

// Null at the end.
const corvane_value* corvane_images::next_image() {
  if (const corvane_value* value = std::exchange(unvisited, nullptr)) {
    if (enter(value)) return value;
  }
  while (!levels.empty()) {
    Level& level = levels.back();
    const size_t position = level.next++;
    const corvane_value* child = corvane_value_at(level.container, position);
    if (child == nullptr) {
      levels.pop_back();
      continue;
    }
    append_name(level, position);
    if (enter(child)) return child;
  }
  return nullptr;
}

corvane_images* corvane_images_open(const corvane_value* value) {
  return client::without_exceptions([&] { return new corvane_images{const_cast<plist::Value*>(from_c(value))}; },
                                    [] { return static_cast<corvane_images*>(nullptr); });
}

void corvane_images_close(corvane_images* images) { delete images; }

corvane_status corvane_images_next(corvane_images* images, corvane_image* image) {
  if (images == nullptr) return CORVANE_BAD_REQUEST;
  if (images->is_over) return CORVANE_NO_MEMORY;
  const auto next = [&] {
    const corvane_value* found = images->next_image();
    if (found == nullptr) return CORVANE_END;
    if (image == nullptr) return CORVANE_OK;
    size_t length = 0;
    const void* bytes = corvane_value_data(found, &length);
    const client::ImageFormat& format = client::image_format({static_cast<const char*>(bytes), length});
    *image = {images->name.c_str(), images->name.size(), bytes, length, format.media_type, format.extension};
    return CORVANE_OK;
  };
  return client::without_exceptions(next, [&] {
    images->is_over = true;
    return CORVANE_NO_MEMORY;
  });
}
