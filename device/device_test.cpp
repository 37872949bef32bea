#include <gtest/gtest.h>

#include <filesystem>

#include "device/carrier_bundle.h"
#include "device/regulatory_images.h"
#include "device/vexa_helper.h"
#include "plist/describe.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TestPlatform;
using Lines = std::vector<std::string>;
using Value = plist::Ref<plist::Value>;

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

TEST(VexaHlpr, ReadsABooleanFromBooleansAndNumbersOnly) {
  const auto reads_as_true = [](const Value& answer) {
    TestPlatform::fresh().properties["HasBaseband"] = answer;
    return VexaHlpr::getSharedInstance().getBoolAnswer(text("HasBaseband").get());
  };
  EXPECT_TRUE(reads_as_true(plist::Boolean::yes()) && reads_as_true(plist::Number::create_real(0.5)));
  EXPECT_FALSE(reads_as_true(plist::Boolean::no()) || reads_as_true(plist::Number::create_real(-0.0)));
  EXPECT_FALSE(reads_as_true(text("1")) || reads_as_true(nullptr));
}

TEST(VexaHlpr, GathersAnswersAndOneErrorForEachMissingRequiredKey) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductType"] = text("Pocket9,1");
  const auto answers = create_dict();
  const auto errors = create_array();
  const auto gather = [&](const std::string& key, bool required) {
    VexaHlpr::getSharedInstance().addAVexaKey_toDictionary_required_errors(*text(key), *answers, required,
                                                                           *errors);
  };
  gather("ProductType", true);
  gather("BasebandStatus", true);
  gather("DeviceClass", false);
  EXPECT_EQ(plist::describe(answers.get()), R"({"ProductType": "Pocket9,1"})");
  EXPECT_EQ(plist::describe(errors.get()), R"(["No BasebandStatus"])");
  const std::string line = "-[VexaHlpr addAVexaKey:toDictionary:required:errors:]: Error - missing key: ";
  EXPECT_EQ(platform.take_texts(), (Lines{line + "BasebandStatus", line + "DeviceClass"}));
}

TEST(RegulatoryImages, KeepTheVersionUnderWhichTheyWereStored) {
  TestPlatform& platform = TestPlatform::fresh();
  fs::create_directory(system_path("/private/var/mobile/Library/cvd"));
  platform.properties["ProductVersion"] = text("9");
  EXPECT_EQ(store_regulatory_images(*text("first")), 0);
  platform.properties.clear();
  EXPECT_EQ(store_regulatory_images(*text("second")), -1);
  EXPECT_EQ(plist::describe(copy_regulatory_images().get()),
            R"({"ProductVersion": "9", "RegulatoryImages": "first"})");
}

TEST(CarrierBundle, IsLoadedOnlyFromAnAllowedDirectory) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string link = system_path("/var/mobile/Library/Carrier Bundle.bundle"), path = link + "/Info.plist";
  // What is answered where the device's link leads to this bundle, whose information file holds the value.
  const auto info_of = [&](const std::string& directory, const plist::Value& value) {
    const std::string bundle = system_path(directory);
    fs::create_directories(bundle);
    fs::remove(link);
    fs::create_symlink(bundle, link);
    EXPECT_EQ(store_dict((bundle + "/Info.plist").c_str(), value), 0);
    return plist::describe(copy_carrier_bundle_info().get());
  };
  EXPECT_EQ(info_of("/System/Library/Carrier Bundles/Slate/Acme.bundle", *create_dict()), "{}");
  EXPECT_EQ(platform.take_texts(), Lines());
  EXPECT_EQ(info_of("/System/Library/Carrier Bundles/Plover/Acme.bundle", *create_array()), "(null)");
  EXPECT_EQ(platform.take_texts(), Lines{"copy_carrier_bundle_info: Could not load " + path});
  EXPECT_EQ(info_of("/private/var/mobile/Library/Elsewhere", *create_dict()), "(null)");
  EXPECT_EQ(platform.take_texts().back(), "copy_carrier_bundle_info: Could not load " + path);
  fs::remove(link);
  EXPECT_FALSE(copy_carrier_bundle_info());
  EXPECT_EQ(platform.take_texts().back(),
            "copy_carrier_bundle_info: Could not stat " + path + ": No such file or directory");
}

}  // namespace
}  // namespace corvane
