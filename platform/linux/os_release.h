#pragma once

#include <string>

namespace corvane {

/// The version of the system below `root` as os-release(5) tells it: VERSION_ID, or else IMAGE_VERSION, BUILD_ID
/// or VERSION_CODENAME, the first of them that is not empty. Empty where there is none. The file is
/// etc/os-release, or usr/lib/os-release where that one cannot be read.
std::string system_version(const std::string& root);

}  // namespace corvane
