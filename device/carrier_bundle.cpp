#include "device/carrier_bundle.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "daemon/log/cv_log.h"
#include "platform/files.h"
#include "platform/platform.h"
#include "state/plist_file.h"
#include "state/safe_file.h"
#include "state/values.h"

namespace corvane {

plist::Ref<plist::Dictionary> copy_carrier_bundle_info() {
  char path[path_limit];
  const std::string bundle = system_path("/var/mobile/Library/Carrier Bundle.bundle");
  std::snprintf(path, sizeof path, "%s/Info.plist", bundle.c_str());

  // Stays empty, and so fails to load, where the bundle lies outside the allowed directories.
  char resolved[path_limit] = "";
  const int vetted = safe_bundle(path, resolved, sizeof resolved);
  struct stat status;
  if (stat(path, &status) != 0) {
    cv_log("copy_carrier_bundle_info", 0, "Could not stat %s: %s", path, std::strerror(errno));
    return nullptr;
  }
  if (vetted == 0) {
    const auto info = load_dict(resolved);
    if (plist::Dictionary* dictionary = as_dictionary(info.get())) return dictionary;
  }
  cv_log("copy_carrier_bundle_info", 0, "Could not load %s", path);
  return nullptr;
}

}  // namespace corvane
