#include "bus/report.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plist/printable.h"

namespace corvane::bus {

void report(const std::string& line) { std::fprintf(stderr, "corvane-bus: %s\n", plist::printable(line).c_str()); }

void require(int result, const char* what) {
  if (result >= 0) return;
  report(std::string(what) + ": " + std::strerror(-result));
  std::_Exit(EXIT_FAILURE);
}

}  // namespace corvane::bus
