#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// An HTML page that shows the regulatory images of the daemon's answer. It loads nothing from elsewhere and runs
/// no script, and its Content-Security-Policy allows neither, so that whatever the images and their names hold
/// does nothing but show.
std::string image_page(const plist::Dictionary& answer);

}  // namespace corvane::tools
