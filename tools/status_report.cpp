#include "tools/status_report.h"

#include "tools/report.h"

namespace corvane::tools {

std::string status_report(const plist::Dictionary& status, const Screen& screen) { return report(status, screen); }

}  // namespace corvane::tools
