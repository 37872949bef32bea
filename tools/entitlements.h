#pragma once

#include <string>

namespace corvane::tools {

/// Gives an executable its entitlements: writes the content of an XML property-list file, whose top level must be
/// a dictionary, to the extended attribute that the daemon reads. Throws FileFault, also for an executable that
/// others than root can write: the daemon would not believe its attribute.
void sign_executable(const std::string& executable, const std::string& property_list);

}  // namespace corvane::tools
