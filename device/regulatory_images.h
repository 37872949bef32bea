#pragma once

#include "plist/value.h"

/// The regulatory images that the device shows, kept in one file with the system version under which they
/// were stored. The file is rewritten in place: store and read on one queue.
namespace corvane {

/// The device's answer "ProductVersion", owned. Null where it has none; no images can be stored then.
plist::Ref<plist::Value> copy_product_version();

/// Replaces the file by {"RegulatoryImages": images, "ProductVersion": the current system version}. The
/// images are borrowed and not inspected. 0; -1, the old file untouched, where memory is out, or where the
/// device has no version, which is not logged; otherwise what `store_dict` answers.
int store_regulatory_images(plist::Value& images);

/// The file's whole dictionary, owned and immutable, under whatever version it was stored. Null when the file
/// cannot be read, which `load_dict` logs, or does not hold a dictionary.
/// Throws std::bad_alloc where memory is out.
plist::Ref<plist::Dictionary> copy_regulatory_images();

}  // namespace corvane
