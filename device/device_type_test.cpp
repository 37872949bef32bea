#include "device/device_type.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <latch>
#include <thread>

#include "device/vexa_helper.h"
#include "plist/describe.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using testing::TestPlatform;
using Lines = std::vector<std::string>;
using Value = plist::Ref<plist::Value>;

constexpr char class_property[] = "HWTree:/baseband/class";
const std::string at_first = "__get_device_type_internal_block_invoke: ";

Value text(std::string_view utf8) { return plist::String::create(utf8); }
Value data(const std::string& bytes) { return plist::Data::create(bytes); }

TestPlatform& fresh_device(std::string_view product_type) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductType"] = text(product_type);
  platform.properties["HasBaseband"] = plist::Boolean::yes();
  platform.registry[class_property] = data({3, 0, 0, 0});
  return platform;
}

void expect_record(const std::string& fields, const Lines& lines) {
  const DeviceType type = get_device_type_internal();
  std::string found = plist::describe(type.product_type.get()) + " " + plist::describe(type.device_class.get());
  for (const bool flag : {type.overridden, type.is_fpga, type.has_telephony}) found += flag ? " yes" : " no";
  EXPECT_EQ(found + " " + std::to_string(type.baseband_class), fields);
  EXPECT_EQ(TestPlatform::installed().take_texts(), lines);
}

void expect_test_product(bool is_fpga, const std::string& reason) {
  Lines lines = {at_first + "Overriding machine type with q52 (Pocket7,2)",
                 at_first + "product_type: Pocket7,2\n"};
  if (!reason.empty()) lines.insert(lines.begin(), at_first + reason);
  expect_record(is_fpga ? "Pocket7,2 Pocket yes yes no -1" : "Pocket7,2 Pocket yes no no -1", lines);
}

TEST(DeviceType, IsForcedByAnyPreference) {
  TestPlatform& platform = fresh_device("zFPGA");
  Value& preference = platform.preference_values["com.norvane.corvaned/MachineHack"];
  preference = text("Q52");
  expect_test_product(false, "");
  preference = text("POCKET7,2");
  expect_test_product(false, "");
  const std::pair<Value, std::string> others[] = {
      {text("q523"), "q523"}, {text(""), ""}, {plist::Number::create_int32(52), "52"}};
  for (const auto& [value, shown] : others) {
    preference = value;
    expect_test_product(false, "MachineHack value of '" + shown + "' is not supported; assuming q52");
  }
  EXPECT_EQ(platform.properties_asked, 0u);
}

TEST(DeviceType, FpgaBoardIsKnownByItsMarkerAnywhereInAnyCase) {
  fresh_device("Pocket-zfpga9,1");
  expect_test_product(true, "This is an FPGA, faking out product type as q52");
}

TEST(DeviceType, BasebandClassIsFourBytesInNativeOrder) {
  TestPlatform& platform = fresh_device("Pocket9,1");
  Value& property = platform.registry[class_property];
  const std::string record = "Pocket9,1 (null) no no yes ";
  const std::string last = at_first + "product_type: Pocket9,1\n";
  property = data({1, 0, 0, 0});
  expect_record(record + "1", {last});
  property = data({0, 0, 0, 1});
  expect_record(record + "16777216", {last});
  for (const Value& bad : {data({1, 0}), data({1, 0, 0, 0, 0}), text("1234")}) {
    property = bad;
    const std::string line = "getDeviceTreeInt: value for class property of HWTree:/baseband is invalid (";
    expect_record(record + "-1", {line + plist::describe(bad.get()) + ")", last});
  }
  for (const bool has_node : {false, true}) {
    platform.registry.clear();
    if (has_node) platform.registry["HWTree:/baseband"] = plist::Boolean::yes();
    expect_record(record + "-1", {"getDeviceTreeInt: no class property of HWTree:/baseband", last});
  }
}

TEST(DeviceType, TakesOnlyABooleanForTelephonyAndAStringForTheProduct) {
  TestPlatform& platform = fresh_device("Pocket9,1");
  const auto name = plist::String::create("HasBaseband");
  platform.properties["HasBaseband"] = plist::Number::create_int32(1);
  EXPECT_FALSE(device_bool_answer(*name));
  EXPECT_TRUE(VexaHlpr::getSharedInstance().getBoolAnswer(name.get()));
  platform.properties["ProductType"] = data("zFPGA");
  expect_record("(null) (null) no no no 3", {at_first + "product_type: (null)\n"});
}

// A process has one record, so each device gets a process; before the test below, as the suite's name makes it.
TEST(DeviceTypeDeathTest, AccessorsReadTheRecord) {
  const auto print_accessors = [](std::string_view product_type, char baseband_class) {
    fresh_device(product_type).registry[class_property] = data({baseband_class, 0, 0, 0});
    std::fprintf(stderr, "%s %s %d%d%d %d %d%d", plist::describe(device_product_type()).c_str(),
                 plist::describe(device_class_override()).c_str(), device_type_overridden(), device_is_fpga(),
                 device_has_telephony(), device_is_slate_family(), baseband_class_above_one(),
                 baseband_class_above_two());
    TestPlatform::installed().prepare_to_die();
    std::_Exit(0);
  };
  const auto ended = ::testing::ExitedWithCode(0);
  EXPECT_EXIT(print_accessors("Slate3,1", 1), ended, "^Slate3,1 .null. 001 1 00$");
  EXPECT_EXIT(print_accessors("slate3,1", 2), ended, "^slate3,1 .null. 001 0 10$");
  EXPECT_EXIT(print_accessors("A Slate", 3), ended, "^A Slate .null. 001 0 11$");
  EXPECT_EXIT(print_accessors("SlatezFPGA", 3), ended, "^Pocket7,2 Pocket 110 0 00$");
}

TEST(DeviceType, ConcurrentFirstCallersWorkItOutOnce) {
  TestPlatform& platform = fresh_device("Slate3,1");
  std::latch start(8);
  std::vector<std::thread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&start] {
      start.arrive_and_wait();
      EXPECT_TRUE(baseband_class_above_two() && device_is_slate_family());
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(platform.properties_asked, 2u);
  EXPECT_EQ(platform.take_lines().size(), 1u);
  platform.properties["ProductType"] = text("Pocket9,1");
  EXPECT_TRUE(device_is_slate_family());
}

}  // namespace
}  // namespace corvane
