#include "device/device_type.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <latch>
#include <thread>

#include "plist/describe.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using testing::TestPlatform;
using Value = plist::Ref<plist::Value>;

const std::string head = "\n__get_device_type_internal_block_invoke: ";

Value text(std::string_view utf8) { return plist::String::create(utf8); }
Value data(const std::string& bytes) { return plist::Data::create(bytes); }

TestPlatform& fresh_device(const Value& product_type, const Value& baseband_class) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductType"] = product_type;
  platform.properties["HasBaseband"] = plist::Boolean::yes();
  if (baseband_class) platform.registry["HWTree:/baseband/class"] = baseband_class;
  return platform;
}

// The record and the lines that were logged.
std::string work_out() {
  const DeviceType type = get_device_type_internal();
  std::string found = plist::describe(type.product_type.get()) + " " + plist::describe(type.device_class.get());
  for (const bool flag : {type.overridden, type.is_fpga, type.has_telephony}) found += flag ? " yes" : " no";
  found += " " + std::to_string(type.baseband_class);
  for (const std::string& line : TestPlatform::installed().take_texts()) found += "\n" + line;
  return found;
}

TEST(DeviceType, IsForcedByAnyPreferenceAndOnAnFpgaBoard) {
  const std::string forced =
      head + "Overriding machine type with q52 (Pocket7,2)" + head + "product_type: Pocket7,2\n";
  const std::string unsupported = head + "MachineHack value of '", assumed = "' is not supported; assuming q52";
  TestPlatform& platform = fresh_device(text("Pocket-zfpga9,1"), nullptr);
  EXPECT_EQ(work_out(),
            "Pocket7,2 Pocket yes yes no -1" + head + "This is an FPGA, faking out product type as q52" + forced);
  for (const auto& [preference, line] : {std::pair(text("Q52"), std::string()),
                                         {text("POCKET7,2"), ""},
                                         {text("q523"), unsupported + "q523" + assumed},
                                         {data(""), unsupported + "<0 bytes>" + assumed}}) {
    platform.preference_values["com.norvane.corvaned/MachineHack"] = preference;
    EXPECT_EQ(work_out(), "Pocket7,2 Pocket yes no no -1" + line + forced);
  }
  EXPECT_EQ(platform.properties_asked, 1u);
}

TEST(DeviceType, TakesAStringForTheProductABooleanForTelephonyAndFourBytesForTheClass) {
  const std::string record = "Pocket9,1 (null) no no yes ", last = head + "product_type: Pocket9,1\n";
  const std::string invalid = "-1\ngetDeviceTreeInt: value for class property of HWTree:/baseband is invalid (";
  for (const auto& [property, found] :
       {std::pair(data({1, 0, 0, 0}), std::string("1")),
        {data({0, 0, 0, 1}), "16777216"},
        {data("12"), invalid + "<2 bytes: 3132>)"},
        {data("12345"), invalid + "<5 bytes: 3132333435>)"},
        {text("1234"), invalid + "1234)"},
        {nullptr, "-1\ngetDeviceTreeInt: no class property of HWTree:/baseband"}}) {
    fresh_device(text("Pocket9,1"), property);
    EXPECT_EQ(work_out(), record + found + last);
  }
  fresh_device(data("zFPGA"), data({3, 0, 0, 0})).properties["HasBaseband"] = plist::Number::create_int32(1);
  EXPECT_EQ(work_out(), "(null) (null) no no no 3" + head + "product_type: (null)\n");
}

// A process has one record, so each device gets a process; before the test below, as the suite's name makes it.
TEST(DeviceTypeDeathTest, AccessorsReadTheRecord) {
  const auto print_accessors = [](std::string_view product_type, char baseband_class) {
    fresh_device(text(product_type), data({baseband_class, 0, 0, 0}));
    std::fprintf(stderr, "%s %s %d%d%d %d %d%d", plist::describe(device_product_type()).c_str(),
                 plist::describe(device_class_override()).c_str(), device_type_overridden(), device_is_fpga(),
                 device_has_telephony(), device_is_slate_family(), baseband_class_above_one(),
                 baseband_class_above_two());
    TestPlatform::installed().prepare_to_die();
    std::_Exit(0);
  };
  const auto ended = ::testing::ExitedWithCode(0);
  EXPECT_EXIT(print_accessors("Slate3,1", 1), ended, "^Slate3,1 .null. 001 1 00$");
  EXPECT_EXIT(print_accessors("slate Slate", 2), ended, "^slate Slate .null. 001 0 10$");
  EXPECT_EXIT(print_accessors("SlatezFPGA", 3), ended, "^Pocket7,2 Pocket 110 0 00$");
}

TEST(DeviceType, ConcurrentFirstCallersWorkItOutOnce) {
  TestPlatform& platform = fresh_device(text("Slate3,1"), data({3, 0, 0, 0}));
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
}

}  // namespace
}  // namespace corvane
