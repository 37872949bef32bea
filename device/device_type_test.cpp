#include "device/device_type.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "plist/describe.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using Lines = std::vector<std::string>;
using testing::TestPlatform;
using Value = plist::Ref<plist::Value>;

Value text(std::string_view utf8) { return plist::String::create(utf8); }
Value data(const std::string& bytes) { return plist::Data::create(bytes); }
std::string log_line(const std::string& message) { return "__get_device_type_internal_block_invoke: " + message; }

/// A device with telephony.
TestPlatform& fresh_device(const Value& product_type, const Value& baseband_class) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductType"] = product_type;
  platform.properties["HasBaseband"] = plist::Boolean::yes();
  if (baseband_class) platform.registry["HWTree:/baseband/class"] = baseband_class;
  return platform;
}

void expect_test_product(const DeviceType& type, const Lines& first_lines) {
  EXPECT_EQ(plist::describe(type.product_type.get()), "Pocket7,2");
  EXPECT_EQ(plist::describe(type.device_class.get()), "Pocket");
  EXPECT_TRUE(type.overridden);
  EXPECT_FALSE(type.has_telephony);
  EXPECT_EQ(type.baseband_class, -1);
  Lines lines = first_lines;
  lines.push_back(log_line("Overriding machine type with q52 (Pocket7,2)"));
  lines.push_back(log_line("product_type: Pocket7,2\n"));
  EXPECT_EQ(TestPlatform::installed().take_texts(), lines);
}

TEST(DeviceType, OnAnFpgaBoardIsTheTestProduct) {
  fresh_device(text("Pocket-zfpga9,1"), data({3, 0, 0, 0}));
  const DeviceType type = get_device_type_internal();
  EXPECT_TRUE(type.is_fpga);
  expect_test_product(type, {log_line("This is an FPGA, faking out product type as q52")});
}

TEST(DeviceType, IsForcedByAnyPreferenceAndAsksTheDeviceNothing) {
  TestPlatform& platform = fresh_device(text("zFPGA"), data({3, 0, 0, 0}));
  const auto expect_forced_by = [&platform](const Value& preference, const Lines& complaint) {
    platform.preference_values["com.norvane.corvaned/MachineHack"] = preference;
    const DeviceType type = get_device_type_internal();
    EXPECT_FALSE(type.is_fpga);
    expect_test_product(type, complaint);
  };
  expect_forced_by(text("Q52"), {});
  expect_forced_by(text("POCKET7,2"), {});
  expect_forced_by(text("q523"), {log_line("MachineHack value of 'q523' is not supported; assuming q52")});
  expect_forced_by(data(""), {log_line("MachineHack value of '<0 bytes>' is not supported; assuming q52")});
  EXPECT_EQ(platform.properties_asked, 0u);
}

TEST(DeviceType, TakesExactlyFourBytesForTheBasebandClass) {
  const auto class_of = [](const Value& property) {
    fresh_device(text("Pocket9,1"), property);
    return get_device_type_internal().baseband_class;
  };
  const auto complaint = [] { return TestPlatform::installed().take_texts().front(); };
  EXPECT_EQ(class_of(data({0, 0, 0, 1})), 1 << 24) << "in the order of a little-endian machine";
  EXPECT_EQ(class_of(nullptr), -1);
  EXPECT_EQ(complaint(), "getDeviceTreeInt: no class property of HWTree:/baseband");
  const std::string invalid = "getDeviceTreeInt: value for class property of HWTree:/baseband is invalid ";
  EXPECT_EQ(class_of(data("12")), -1);
  EXPECT_EQ(complaint(), invalid + "(<2 bytes: 3132>)");
  EXPECT_EQ(class_of(text("1234")), -1);
  EXPECT_EQ(complaint(), invalid + "(1234)");
}

TEST(DeviceType, TakesOnlyAStringForTheProductTypeAndABooleanForTelephony) {
  fresh_device(data("zFPGA"), data({3, 0, 0, 0})).properties["HasBaseband"] = plist::Number::create_int32(1);
  const DeviceType type = get_device_type_internal();
  EXPECT_FALSE(type.product_type || type.device_class || type.overridden || type.has_telephony);
}

// A process has one record, so each device gets a process of its own.
TEST(DeviceTypeDeathTest, AccessorsReadTheRecord) {
  const auto print_accessors = [](const char* product_type, char baseband_class) {
    fresh_device(text(product_type), data({baseband_class, 0, 0, 0}));
    std::fprintf(stderr, "product %s, class %s; overridden %d, fpga %d, telephony %d, slate %d, above 1 %d, 2 %d",
                 plist::describe(device_product_type()).c_str(), plist::describe(device_class_override()).c_str(),
                 device_type_overridden(), device_is_fpga(), device_has_telephony(), device_is_slate_family(),
                 baseband_class_above_one(), baseband_class_above_two());
    TestPlatform::installed().prepare_to_die();
    std::_Exit(0);
  };
  const auto ended = ::testing::ExitedWithCode(0);
  EXPECT_EXIT(print_accessors("Slate3,1", 1), ended,
              "product Slate3,1, class .null.; overridden 0, fpga 0, telephony 1, slate 1, above 1 0, 2 0");
  EXPECT_EXIT(print_accessors("slate Slate", 2), ended,
              "product slate Slate, class .null.; overridden 0, fpga 0, telephony 1, slate 0, above 1 1, 2 0");
  EXPECT_EXIT(print_accessors("Pocket9,1", 3), ended,
              "product Pocket9,1, class .null.; overridden 0, fpga 0, telephony 1, slate 0, above 1 1, 2 1");
  EXPECT_EXIT(print_accessors("SlatezFPGA", 3), ended,
              "product Pocket7,2, class Pocket; overridden 1, fpga 1, telephony 0, slate 0, above 1 0, 2 0");
}

}  // namespace
}  // namespace corvane
