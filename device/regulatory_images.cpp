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

struct Paths {
  char directory[path_buffer_size];
  char file[path_buffer_size];
};

Paths images_paths() {
  Paths paths;
  const std::string home = system_path("/private/var/mobile");
  std::snprintf(paths.directory, path_buffer_size, "%s%s", home.c_str(), images_directory);
  std::snprintf(paths.file, path_buffer_size, "%s%s/%s", home.c_str(), images_directory,
                "regulatory_images.plist");
  return paths;
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
    const Paths paths = images_paths();
    mkdir(paths.directory, 0755);
    const auto record = images_record(images);
    return record ? store_dict(paths.file, *record) : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

plist::Ref<plist::Dictionary> copy_regulatory_images() {
  const auto images = load_dict(images_paths().file);
  return as_dictionary(images.get());
}

}  // namespace corvane
