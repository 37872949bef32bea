#include "device/device_type.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "plist/describe.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using testing::TestPlatform;
using Value = plist::Ref<plist::Value>;

Value text(std::string_view utf8) { return plist::String::create(utf8); }
Value data(const std::string& bytes) { return plist::Data::create(bytes); }

TestPlatform& fresh_device(const Value& product_type, const Value& baseband_class) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductType"] = product_type;
  platform.properties["HasBaseband"] = plist::Boolean::yes();
  if (baseband_class) platform.registry["HWTree:/baseband/class"] = baseband_class;
  return platform;
}

// The record and the number of lines that were logged.
std::string work_out() {
  const DeviceType type = get_device_type_internal();
  std::string found = plist::describe(type.product_type.get()) + " " + plist::describe(type.device_class.get());
  for (const bool flag : {type.overridden, type.is_fpga, type.has_telephony}) found += flag ? " yes" : " no";
  found += " " + std::to_string(type.baseband_class);
  return found + ", " + std::to_string(TestPlatform::installed().take_lines().size()) + " lines";
}

TEST(DeviceType, IsForcedByAnyPreferenceAndOnAnFpgaBoard) {
  TestPlatform& platform = fresh_device(text("Pocket-zfpga9,1"), nullptr);
  EXPECT_EQ(work_out(), "Pocket7,2 Pocket yes yes no -1, 3 lines");
  for (const auto& [preference, lines] :
       {std::pair(text("Q52"), "2"), {text("POCKET7,2"), "2"}, {text("q523"), "3"}, {data(""), "3"}}) {
    platform.preference_values["com.norvane.corvaned/MachineHack"] = preference;
    EXPECT_EQ(work_out(), std::string("Pocket7,2 Pocket yes no no -1, ") + lines + " lines");
  }
  EXPECT_EQ(platform.properties_asked, 1u);
}

TEST(DeviceType, TakesAStringForTheProductABooleanForTelephonyAndFourBytesForTheClass) {
  for (const auto& [property, found] : {std::pair(data({1, 0, 0, 0}), std::string("1, 1")),
                                        {data({0, 0, 0, 1}), "16777216, 1"},
                                        {data("12"), "-1, 2"},
                                        {data("12345"), "-1, 2"},
                                        {text("1234"), "-1, 2"},
                                        {nullptr, "-1, 2"}}) {
    fresh_device(text("Pocket9,1"), property);
    EXPECT_EQ(work_out(), "Pocket9,1 (null) no no yes " + found + " lines");
  }
  fresh_device(data("zFPGA"), data({3, 0, 0, 0})).properties["HasBaseband"] = plist::Number::create_int32(1);
  EXPECT_EQ(work_out(), "(null) (null) no no no 3, 1 lines");
}

// A process has one record, worked out once, so each device gets a process.
TEST(DeviceTypeDeathTest, AccessorsReadTheRecord) {
  const auto print_accessors = [](std::string_view product_type, char baseband_class) {
    fresh_device(text(product_type), data({baseband_class, 0, 0, 0}));
    std::fprintf(stderr, "%s %s %d%d%d %d %d%d", plist::describe(device_product_type()).c_str(),
                 plist::describe(device_class_override()).c_str(), device_type_overridden(), device_is_fpga(),
                 device_has_telephony(), device_is_slate_family(), baseband_class_above_one(),
                 baseband_class_above_two());
    std::fprintf(stderr, " %zu", TestPlatform::installed().properties_asked);
    TestPlatform::installed().prepare_to_die();
    std::_Exit(0);
  };
  const auto ended = ::testing::ExitedWithCode(0);
  EXPECT_EXIT(print_accessors("Slate3,1", 1), ended, "^Slate3,1 .null. 001 1 00 2$");
  EXPECT_EXIT(print_accessors("slate Slate", 2), ended, "^slate Slate .null. 001 0 10 2$");
  EXPECT_EXIT(print_accessors("SlatezFPGA", 3), ended, "^Pocket7,2 Pocket 110 0 00 1$");
}

}  // namespace
}  // namespace corvane
