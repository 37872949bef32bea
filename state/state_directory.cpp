#include "state/state_directory.h"

#include <cstdio>

#include "platform/platform.h"

namespace corvane {

namespace {

constexpr char home[] = "/private/var/mobile";
constexpr char directory[] = "/Library/cvd";

}  // namespace

StatePath state_directory() {
  StatePath path;
  std::snprintf(path.text, sizeof path.text, "%s%s%s", platform().root().c_str(), home, directory);
  return path;
}

StatePath state_path(const char* name) {
  StatePath path;
  std::snprintf(path.text, sizeof path.text, "%s%s%s/%s", platform().root().c_str(), home, directory, name);
  return path;
}

}  // namespace corvane
