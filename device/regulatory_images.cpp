#include "device/regulatory_images.h"

#include <cstdio>
#include <new>
#include <sys/stat.h>

#include "device/path_buffer.h"
#include "device/vexa_helper.h"
#include "platform/platform.h"
#include "state/plist_file.h"
#include "state/values.h"

namespace corvane {

namespace {

constexpr char images_directory[] = "/Library/cvd/regulatory_images";

struct Path {
  char text[path_buffer_size];
};

std::string home() { return system_path("/private/var/mobile"); }

Path images_file() {
  Path path;
  std::snprintf(path.text, path_buffer_size, "%s%s/%s", home().c_str(), images_directory,
                "regulatory_images.plist");
  return path;
}

void create_images_directory() {
  Path path;
  std::snprintf(path.text, path_buffer_size, "%s%s", home().c_str(), images_directory);
  mkdir(path.text, 0755);
}

// Null where the device has no version.
plist::Ref<plist::Dictionary> images_record(plist::Value& images) {
  auto record = plist::MutableDictionary::create(2);
  const auto name = plist::String::create("ProductVersion");
  auto version = VexaHlpr::getSharedInstance().copyAnswer(name.get());
  if (!version) return nullptr;
  record->set("RegulatoryImages", plist::Ref<plist::Value>(&images));
  record->set(name, std::move(version));
  return record;
}

}  // namespace

int store_regulatory_images(plist::Value& images) {
  try {
    create_images_directory();
    const auto record = images_record(images);
    return record ? store_dict(images_file().text, *record) : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

plist::Ref<plist::Dictionary> copy_regulatory_images() {
  const auto images = load_dict(images_file().text);
  return as_dictionary(images.get());
}

}  // namespace corvane
