#pragma once

#include <gtest/gtest.h>

#include "platform/process/small_file.h"
#include "tests/support/daemon_process.h"
#include "tools/plist_edit.h"

namespace corvane::testing {

/// Entries of a profile's dictionary "Telephony"; their keys may be paths.
using TelephonyEntries = std::vector<std::pair<std::string, plist::Ref<plist::Value>>>;

/// A root with one of the profiles that come with the daemon.
struct SimulatedRoot : DeviceRoot {
  explicit SimulatedRoot(const std::string& name) {
    write_file(profile(), read_file(CORVANE_SOURCE_DIR "/profiles/" + name));
  }
  /// Puts another file in the profile's place.
  void replace(const TelephonyEntries& entries) const {
    for (const auto& [key, value] : entries) tools::set_entry(profile(), "Telephony." + key, value);
  }
  /// Writes into the profile's own file.
  void rewrite(const TelephonyEntries& entries) const {
    const std::string copy = at("/copy.plist");
    write_file(copy, read_file(profile()));
    for (const auto& [key, value] : entries) tools::set_entry(copy, "Telephony." + key, value);
    write_file(profile(), read_file(copy));
  }
  /// Waits until the ark's file holds what this describes.
  void expect_ark(const std::string& expected) const {
    std::string ark;
    EXPECT_TRUE(eventually([&] {
      DictionaryFile file(at("/private/var/mobile/Library/cvd/data_ark.plist"));
      return (ark = plist::describe(file.contents().dictionary.get())) == expected;
    })) << ark;
  }
};

}  // namespace corvane::testing
