#include "device/regulatory_images.h"

#include <new>
#include <sys/stat.h>

#include "device/vexa_helper.h"
#include "state/plist_file.h"
#include "state/state_directory.h"
#include "state/values.h"

namespace corvane {

namespace {

constexpr char images_directory[] = "regulatory_images";
constexpr char images_file[] = "regulatory_images/regulatory_images.plist";

constexpr char version_key[] = "ProductVersion";

// Every request needs it, and the root never changes.
const char* images_path() {
  static const StatePath path = state_path(images_file);
  return path.text;
}

// Null where the device has no version.
plist::Ref<plist::Dictionary> images_record(plist::Value& images) {
  auto record = plist::MutableDictionary::create(2);
  auto version = copy_product_version();
  if (!version) return nullptr;
  record->set("RegulatoryImages", plist::Ref<plist::Value>(&images));
  record->set(version_key, std::move(version));
  return record;
}

}  // namespace

plist::Ref<plist::Value> copy_product_version() {
  return VexaHlpr::getSharedInstance().copyAnswer(plist::String::create(version_key).get());
}

int store_regulatory_images(plist::Value& images) {
  try {
    mkdir(state_path(images_directory).text, 0755);
    const auto record = images_record(images);
    return record ? store_dict(images_path(), *record) : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

plist::Ref<plist::Dictionary> copy_regulatory_images() {
  const auto images = load_dict(images_path());
  return as_dictionary(images.get());
}

}  // namespace corvane
