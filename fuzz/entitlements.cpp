// The entitlements of a blob, which anyone may have forged, against those that its header and property list give.

#include "support/entitlements.h"

#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/ensure.h"
#include "plist/big_endian.h"
#include "plist/entitlements_blob.h"
#include "plist/reader.h"
#include "tests/support/test_platform.h"

namespace corvane::fuzz {

using plist::Ref;
using testing::TestPlatform;

namespace {

Ref<plist::Dictionary> plainly(std::string_view blob) {
  if (blob.size() <= 8 || plist::load_big_endian<4>(blob.data()) != plist::entitlements_magic ||
      plist::load_big_endian<4>(blob.data() + 4) != blob.size()) {
    return nullptr;
  }
  const auto payload = plist::Data::create(blob.substr(8));
  return plist::cast<plist::Dictionary>(plist::decode(payload, plist::Containers::immutable).value.get());
}

void ask(const std::string& blob) {
  static TestPlatform& platform = TestPlatform::fresh();
  platform.entitlements_blob = blob;
  const Ref<plist::Dictionary> entitlements = copy_entitlements_for_pid(7);
  ENSURE(plist::equal(entitlements.get(), plainly(blob).get()));
  ENSURE(!entitlements || platform.take_lines().empty());
  platform.take_lines();
}

}  // namespace
}  // namespace corvane::fuzz

// As it is, and with each part of the header corrected, which random changes seldom do.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace corvane;
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  if (size < plist::entitlements_header_size) {
    fuzz::ask(std::string(input));
    return 0;
  }
  const std::string whole = plist::make_entitlements_blob(input.substr(plist::entitlements_header_size));
  for (const unsigned right : {0u, 1u, 2u, 3u}) {
    std::string blob(input);
    if ((right & 1) != 0) blob.replace(0, 4, whole, 0, 4);
    if ((right & 2) != 0) blob.replace(4, 4, whole, 4, 4);
    fuzz::ask(blob);
  }
  return 0;
}
