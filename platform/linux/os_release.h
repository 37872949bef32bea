#pragma once

#include <string>

namespace corvane {

/// VERSION_ID of os-release(5) below `root`, empty where there is none. The file is etc/os-release, or
/// usr/lib/os-release where that one cannot be read.
std::string system_version(const std::string& root);

}  // namespace corvane
