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
  platform.registry["HWTree:/baseband/class"] = baseband_class;
  return platform;
}

TEST(DeviceType, IsTheTestProductsOnAnFpgaBoardAndUnderAnyPreference) {
  TestPlatform& platform = fresh_device(text("Pocket-zfpga9,1"), data({3, 0, 0, 0}));
  Value& preference = platform.preference_values["com.norvane.corvaned/MachineHack"];
  const auto expect_test_product = [&platform](Lines lines) {
    const DeviceType type = get_device_type_internal();
    EXPECT_EQ(plist::describe(type.product_type.get()), "Pocket7,2");
    EXPECT_EQ(plist::describe(type.device_class.get()), "Pocket");
    EXPECT_TRUE(type.overridden && !type.has_telephony && type.baseband_class == -1);
    lines.push_back(log_line("Overriding machine type with q52 (Pocket7,2)"));
    lines.push_back(log_line("product_type: Pocket7,2\n"));
    EXPECT_EQ(platform.take_texts(), lines);
  };
  expect_test_product({log_line("This is an FPGA, faking out product type as q52")});
  preference = text("POCKET7,2");
  expect_test_product({});
  preference = data("");
  expect_test_product({log_line("MachineHack value of '<0 bytes>' is not supported; assuming q52")});
}

TEST(DeviceType, TakesOnlyAnswersOfTheRightKind) {
  const auto class_of = [](const Value& property) {
    fresh_device(data("zFPGA"), property).properties["HasBaseband"] = plist::Number::create_int32(1);
    const DeviceType type = get_device_type_internal();
    EXPECT_FALSE(type.product_type || type.overridden || type.has_telephony);
    return std::to_string(type.baseband_class) + " " + TestPlatform::installed().take_texts().front();
  };
  EXPECT_EQ(class_of(data("12")),
            "-1 getDeviceTreeInt: value for class property of HWTree:/baseband is invalid (<2 bytes: 3132>)");
  EXPECT_EQ(class_of(nullptr), "-1 getDeviceTreeInt: no class property of HWTree:/baseband");
  EXPECT_EQ(class_of(data({0, 0, 0, 1})), "16777216 " + log_line("product_type: (null)\n")) << "little-endian";
}

// A process has one record, so each device gets a process of its own.
TEST(DeviceTypeDeathTest, AccessorsReadTheRecord) {
  const auto print_accessors = [](const char* product_type, char baseband_class) {
    fresh_device(text(product_type), data({baseband_class, 0, 0, 0}));
    std::string all = plist::describe(device_product_type()) + ";";
    if (device_type_overridden() && device_class_override() != nullptr) all += " overridden";
    if (device_is_fpga()) all += " fpga";
    if (device_has_telephony()) all += " telephony";
    if (device_is_slate_family()) all += " slate";
    if (baseband_class_above_one()) all += " above one";
    if (baseband_class_above_two()) all += " above two";
    std::fputs(all.c_str(), stderr);
    TestPlatform::installed().prepare_to_die();
    std::_Exit(0);
  };
  const auto ended = ::testing::ExitedWithCode(0);
  EXPECT_EXIT(print_accessors("Slate3,1", 1), ended, "Slate3,1; telephony slate$");
  EXPECT_EXIT(print_accessors("slate Slate", 2), ended, "slate Slate; telephony above one$");
  EXPECT_EXIT(print_accessors("SlatezFPGA", 3), ended, "Pocket7,2; overridden fpga$");
  EXPECT_EXIT(print_accessors("Pocket9,1", 3), ended, "Pocket9,1; telephony above one above two$");
}

}  // namespace
}  // namespace corvane
