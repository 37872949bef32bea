#include "tools/open_metrics.h"

namespace corvane::tools {

std::string open_metrics(const plist::Dictionary&) { return ""; }

}  // namespace corvane::tools
