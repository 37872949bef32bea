#include "plist/entitlements_blob.h"

#include "plist/big_endian.h"

namespace corvane::plist {

std::string make_entitlements_blob(std::string_view property_list) {
  std::string blob;
  append_big_endian(blob, entitlements_magic, 4);
  append_big_endian(blob, entitlements_header_size + property_list.size(), 4);
  return blob.append(property_list);
}

bool is_entitlements_blob_whole(std::string_view blob) {
  return blob.size() >= entitlements_header_size && load_big_endian<4>(blob.data() + 4) == blob.size();
}

}  // namespace corvane::plist
