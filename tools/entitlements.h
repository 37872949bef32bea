#pragma once

#include <string>

namespace corvane::tools {

/// Gives an executable its entitlements: the bytes of an XML property-list file whose top level is a
/// dictionary, in the attribute that the daemon reads. Throws FileFault, also for an executable whose
/// attribute would not count because others than root can write the file.
void sign_executable(const std::string& executable, const std::string& property_list);

}  // namespace corvane::tools
