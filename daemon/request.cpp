#include "daemon/request.h"

#include "daemon/log/cv_log.h"
#include "plist/reader.h"
#include "state/values.h"
#include "wire/limits.h"

namespace corvane {

using plist::Ref;

Ref<plist::Dictionary> copy_dict_from_port_data(const Message* message) {
  if (message == nullptr || message->kind != Message::raw_data) return nullptr;
  plist::Decoded decoded = plist::decode(message->body, plist::Containers::immutable, wire::request_depth_limit);
  if (!decoded.value) {
    cv_log("copy_dict_from_port_data", 0, "PlistCreateWithData failed: %@", decoded.error);
    return nullptr;
  }
  if (as_dictionary(decoded.value.get()) == nullptr) {
    cv_log("copy_dict_from_port_data", 0, "got something other than a dictionary");
    return nullptr;
  }
  return Ref<plist::Dictionary>::adopt(static_cast<plist::Dictionary*>(decoded.value.detach()));
}

}  // namespace corvane
