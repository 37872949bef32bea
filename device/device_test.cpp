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

TEST(VexaHlpr, ReadsABooleanFromWhateverTheAnswerIs) {
  const auto reads_as_true = [](const Value& answer) {
    TestPlatform::fresh().properties["HasBaseband"] = answer;
    return VexaHlpr::getSharedInstance().getBoolAnswer(text("HasBaseband").get());
  };
  const Value yes[] = {plist::Boolean::yes(), plist::Number::create_int32(-1), plist::Number::create_real(0.5)};
  const Value no[] = {plist::Boolean::no(), plist::Number::create_int64(0), plist::Number::create_real(-0.0)};
  for (const Value& answer : yes) EXPECT_TRUE(reads_as_true(answer));
  for (const Value& answer : no) EXPECT_FALSE(reads_as_true(answer));
  EXPECT_FALSE(reads_as_true(text("1")) || reads_as_true(nullptr));
}

TEST(VexaHlpr, GathersAnswersAndOneErrorForEachMissingRequiredKey) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductType"] = text("Pocket9,1");
  const auto answers = create_dict();
  const auto errors = create_array();
  for (const std::string& key : Lines{"ProductType", "BasebandStatus", "DeviceClass", {"\0", 1}}) {
    VexaHlpr::getSharedInstance().addAVexaKey_toDictionary_required_errors(*text(key), *answers,
                                                                           key != "DeviceClass", *errors);
  }
  EXPECT_EQ(plist::describe(answers.get()), R"({"ProductType": "Pocket9,1"})");
  EXPECT_EQ(plist::describe(errors.get()), R"(["No BasebandStatus", "No \u0000"])");
  const std::string line = "-[VexaHlpr addAVexaKey:toDictionary:required:errors:]: Error - missing key: ";
  EXPECT_EQ(platform.take_texts(), (Lines{line + "BasebandStatus", line + "DeviceClass", line + "(null)"}));
}

TEST(RegulatoryImages, KeepTheVersionOfTheirStoring) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string state = system_path("/private/var/mobile/Library/cvd");
  fs::create_directory(state);
  platform.properties["ProductVersion"] = text("9");
  EXPECT_EQ(store_regulatory_images(*text("1")), 0);
  platform.properties.clear();
  EXPECT_EQ(store_regulatory_images(*text("2")), -1);
  EXPECT_EQ(plist::describe(copy_regulatory_images().get()),
            R"({"ProductVersion": "9", "RegulatoryImages": "1"})");
  ASSERT_EQ(store_dict((state + "/regulatory_images/regulatory_images.plist").c_str(), *create_array()), 0);
  EXPECT_FALSE(copy_regulatory_images());
}

TEST(CarrierBundle, IsLoadedOnlyFromAnAllowedDirectory) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string path = system_path("/var/mobile/Library/Carrier Bundle.bundle/Info.plist");
  const std::string missing = "No such file or directory";
  const std::string not_loaded = "copy_carrier_bundle_info: Could not load " + path;
  // Asks for a bundle whose information file holds the value, and to which the device's link leads.
  const auto expect_info = [&](const std::string& directory, const plist::Value& value, const char* info,
                               const Lines& lines) {
    const std::string bundle = system_path(directory),
                      link = system_path("/private/var/mobile/Library/Carrier Bundle.bundle");
    fs::create_directories(bundle);
    fs::remove(link);
    fs::create_symlink(bundle, link);
    ASSERT_EQ(store_dict((bundle + "/Info.plist").c_str(), value), 0);
    EXPECT_EQ(plist::describe(copy_carrier_bundle_info().get()), info);
    EXPECT_EQ(platform.take_texts(), lines);
  };
  EXPECT_FALSE(copy_carrier_bundle_info());
  EXPECT_EQ(platform.take_texts(), (Lines{"safe_bundle: safe_bundle(" + path + ") failed: " + missing,
                                          "copy_carrier_bundle_info: Could not stat " + path + ": " + missing}));
  expect_info("/System/Library/Carrier Bundles/Slate/Acme.bundle", *create_dict(), "{}", {});
  expect_info("/System/Library/Carrier Bundles/Plover/Acme.bundle", *create_array(), "(null)", {not_loaded});
  expect_info("/private/var/mobile/Library/Elsewhere", *create_dict(), "(null)",
              {"_safe_open: open() failed: " + missing, "_load_dict: Could not open : " + missing,
               "log_file_info: Can't stat : " + missing, "log_file_info: Can't stat : " + missing, not_loaded});
}

}  // namespace
}  // namespace corvane
