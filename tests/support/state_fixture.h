#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <syslog.h>
#include <vector>

#include "tests/support/failing_allocation.h"
#include "tests/support/test_platform.h"

namespace corvane {

using Lines = std::vector<std::string>;

/// What the tests of state/ share: a fresh platform, paths below its root, and its log.
class StateTest : public ::testing::Test {
 protected:
  std::string at(const std::string& path) const { return platform_.root() + path; }

  /// What was logged since the last call, without the root. Lines for the system log are marked.
  Lines log() {
    Lines lines;
    for (const auto& [level, text] : platform_.take_lines()) {
      const std::string line = std::regex_replace(text, std::regex(platform_.root()), "");
      lines.push_back(level == LOG_NOTICE ? "to the system log: " + line : line);
    }
    return lines;
  }

  testing::TestPlatform& platform_ = testing::TestPlatform::fresh();
};

}  // namespace corvane
