#include <gtest/gtest.h>

#include <filesystem>

#include "device/carrier_bundle.h"
#include "device/regulatory_images.h"
#include "device/vexa_helper.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TestPlatform;
using Lines = std::vector<std::string>;

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

TEST(VexaHlpr, ReadsABooleanFromWhateverTheAnswerIs) {
  TestPlatform& platform = TestPlatform::fresh();
  VexaHlpr& helper = VexaHlpr::getSharedInstance();
  const auto name = text("HasBaseband");
  const plist::Ref<plist::Value> yes[] = {plist::Boolean::yes(), plist::Number::create_int32(-1),
                                          plist::Number::create_real(0.5)};
  const plist::Ref<plist::Value> no[] = {plist::Boolean::no(), plist::Number::create_int64(0),
                                         plist::Number::create_real(-0.0), text("1")};
  const auto read_as_boolean = [&](const plist::Ref<plist::Value>& answer) {
    platform.properties["HasBaseband"] = answer;
    return helper.getBoolAnswer(name.get());
  };
  EXPECT_FALSE(helper.getBoolAnswer(name.get()));
  for (const auto& answer : yes) EXPECT_TRUE(read_as_boolean(answer));
  for (const auto& answer : no) EXPECT_FALSE(read_as_boolean(answer));
  EXPECT_FALSE(helper.copyAnswer(nullptr));
}

TEST(VexaHlpr, GathersAnswersAndOneErrorForEachMissingRequiredKey) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductType"] = text("Pocket9,1");
  platform.properties["HasBaseband"] = plist::Boolean::yes();
  const auto answers = create_dict();
  const auto errors = create_array();
  const auto add = [&](std::string_view key, bool required) {
    VexaHlpr::getSharedInstance().addAVexaKey_toDictionary_required_errors(*text(key), *answers, required,
                                                                           *errors);
  };
  const std::string_view no_c_string("Cut\0", 4);
  add("ProductType", true);
  add("BasebandStatus", true);
  add("DeviceClass", false);
  add("HasBaseband", false);
  add(no_c_string, true);

  EXPECT_EQ(answers->size(), 2u);
  EXPECT_EQ(answers->get("ProductType"), platform.properties["ProductType"].get());
  ASSERT_EQ(errors->size(), 2u);
  EXPECT_EQ(as_string(errors->at(0))->view(), "No BasebandStatus");
  EXPECT_EQ(as_string(errors->at(1))->view(), "No " + std::string(no_c_string));
  const std::string line = "-[VexaHlpr addAVexaKey:toDictionary:required:errors:]: Error - missing key: ";
  EXPECT_EQ(platform.take_texts(), (Lines{line + "BasebandStatus", line + "DeviceClass", line + "(null)"}));
}

void expect_images(std::string_view images, std::string_view version) {
  const auto record = copy_regulatory_images();
  ASSERT_TRUE(record);
  EXPECT_EQ(record->size(), 2u);
  EXPECT_EQ(as_string(record->get("RegulatoryImages"))->view(), images);
  EXPECT_EQ(as_string(record->get("ProductVersion"))->view(), version);
}

TEST(RegulatoryImages, AreReplacedWholeAndKeepTheVersionOfTheirStoring) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string state = system_path("/private/var/mobile/Library/cvd");
  const std::string file = state + "/regulatory_images/regulatory_images.plist";
  platform.properties["ProductVersion"] = text("9.1");
  EXPECT_FALSE(copy_regulatory_images());
  EXPECT_EQ(platform.take_texts().at(1), "_load_dict: Could not open " + file + ": No such file or directory");

  fs::create_directory(state);
  EXPECT_EQ(store_regulatory_images(*text("first")), 0);
  platform.properties["ProductVersion"] = text("9.2");
  expect_images("first", "9.1");
  EXPECT_EQ(store_regulatory_images(*text("second")), 0);
  platform.properties.clear();
  EXPECT_EQ(store_regulatory_images(*text("third")), -1);
  EXPECT_TRUE(platform.take_lines().empty());
  expect_images("second", "9.2");

  ASSERT_EQ(store_dict(file.c_str(), *create_array()), 0);
  EXPECT_FALSE(copy_regulatory_images());
}

// Makes the device's link lead to a bundle in this directory whose information file holds the value.
void select_bundle(const std::string& directory, const plist::Value& info) {
  const std::string bundle = system_path(directory);
  const std::string link = system_path("/private/var/mobile/Library/Carrier Bundle.bundle");
  fs::create_directories(bundle);
  fs::remove(link);
  fs::create_symlink(bundle, link);
  ASSERT_EQ(store_dict((bundle + "/Info.plist").c_str(), info), 0);
}

TEST(CarrierBundle, IsLoadedOnlyFromAnAllowedDirectory) {
  TestPlatform& platform = TestPlatform::fresh();
  const auto info = create_dict();
  const std::string path = system_path("/var/mobile/Library/Carrier Bundle.bundle/Info.plist");
  const std::string missing = "No such file or directory";
  const std::string not_loaded = "copy_carrier_bundle_info: Could not load " + path;

  EXPECT_FALSE(copy_carrier_bundle_info());
  EXPECT_EQ(platform.take_texts(), (Lines{"safe_bundle: safe_bundle(" + path + ") failed: " + missing,
                                          "copy_carrier_bundle_info: Could not stat " + path + ": " + missing}));
  select_bundle("/System/Library/Carrier Bundles/Slate/Acme.bundle", *info);
  EXPECT_TRUE(plist::equal(copy_carrier_bundle_info().get(), info.get()));
  EXPECT_TRUE(platform.take_lines().empty());

  select_bundle("/System/Library/Carrier Bundles/Plover/Acme.bundle", *create_array());
  EXPECT_FALSE(copy_carrier_bundle_info());
  EXPECT_EQ(platform.take_texts(), Lines{not_loaded});

  select_bundle("/private/var/mobile/Library/Elsewhere", *info);
  EXPECT_FALSE(copy_carrier_bundle_info());
  EXPECT_EQ(
      platform.take_texts(),
      (Lines{"_safe_open: open() failed: " + missing, "_load_dict: Could not open : " + missing,
             "log_file_info: Can't stat : " + missing, "log_file_info: Can't stat : " + missing, not_loaded}));
}

}  // namespace
}  // namespace corvane
