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

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

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
  const auto info_in = [&](const std::string& directory) {
    const std::string bundle = system_path(directory);
    fs::create_directories(bundle);
    fs::remove(link);
    fs::create_symlink(bundle, link);
    store_dict((bundle + "/Info.plist").c_str(), *create_dict());
    return plist::describe(copy_carrier_bundle_info().get());
  };
  EXPECT_EQ(info_in("/System/Library/Carrier Bundles/Slate/Acme.bundle"), "{}");
  EXPECT_EQ(info_in("/private/var/mobile/Library/Elsewhere"), "(null)");
  EXPECT_EQ(platform.take_texts().back(), "copy_carrier_bundle_info: Could not load " + path);
  fs::remove(link);
  EXPECT_FALSE(copy_carrier_bundle_info());
  EXPECT_EQ(platform.take_texts().back(),
            "copy_carrier_bundle_info: Could not stat " + path + ": No such file or directory");
}

}  // namespace
}  // namespace corvane
