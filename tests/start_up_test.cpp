#include <gtest/gtest.h>

#include <sys/stat.h>

#include "client/client.h"
#include "tests/support/daemon_process.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::DaemonProcess;
using testing::DeviceRoot;
using testing::Lines;
using testing::RawClient;

constexpr char state_directory[] = "/private/var/mobile/Library/cvd";

unsigned mode_of(const std::string& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

TEST(StartUp, MakesTheStateDirectoryAndForcesItsModeOrGoesOnWithoutIt) {
  const DeviceRoot absent, present, linked, without_library;
  fs::create_directory(present.at(state_directory));
  ASSERT_EQ(mkdir(linked.at("/target").c_str(), 0755), 0);
  fs::create_directory_symlink(linked.at("/target"), linked.at(state_directory));
  const std::string library = fs::path(without_library.at(state_directory)).parent_path();
  fs::remove_all(library);
  for (const DeviceRoot* root : {&absent, &present, &linked, &without_library}) {
    const DaemonProcess daemon(*root);
    const std::string path = root->at(state_directory), log = daemon.standard_error();
    const bool usable = mode_of(path) == 0700;
    EXPECT_EQ(usable, root == &absent || root == &present) << log;
    EXPECT_EQ(log.find("lockstart_local: couldn't open " + path + "\n") == log.npos, usable);
    EXPECT_EQ(log.find("lockstart_local: Could not mkdir " + path + " : No such") == log.npos,
              root != &without_library);
  }
  EXPECT_FALSE(fs::exists(library));
}

TEST(StartUp, RefusesABadEnvironmentAndTouchesNothing) {
  const DeviceRoot root;
  fs::create_directory_symlink(root.at(""), root.at("") + "-link");
  const std::string garbage = root.profile() + "-garbage";
  testing::write_file(garbage, "no property list");
  const std::pair<const char*, Lines> faults[] = {
      {"CORVANE_ROOT",
       {root.at("").substr(1), root.at("/"), root.at("-link"), root.at("/run/.."), root.at("/no"),
        root.profile()}},
      {"CORVANE_PLATFORM", {"Linux"}},
      {"CORVANE_PROFILE", {"", root.at("/missing"), root.at("/run"), garbage}},
      {"CORVANE_LOG_STDERR", {"yes"}}};
  const Lines before = root.listing();
  for (const auto& [variable, values] : faults) {
    for (const std::string& value : values) {
      testing::Environment environment = root.environment();
      environment[variable] = value;
      DaemonProcess daemon(environment);
      EXPECT_EQ(daemon.end(), 1) << variable << "=" << value;
      EXPECT_TRUE(daemon.standard_error().starts_with("corvaned: ")) << daemon.standard_error();
    }
  }
  EXPECT_EQ(root.listing(), before);
}

TEST(StartUp, RefusesToRunBesideAnotherDaemon) {
  const DeviceRoot root;
  DaemonProcess first(root);
  RawClient client(root.socket(wire::public_service));
  const Lines before = root.listing(), log = first.log();
  EXPECT_EQ(log.front(), "main: ____________________ Corvane startup _____________________");
  DaemonProcess second(root.environment());
  EXPECT_EQ(second.end(), 1);
  EXPECT_EQ(second.log(), Lines{"corvaned: another daemon holds " + root.at("/run/corvaned/corvaned.lock")});
  EXPECT_EQ(root.listing(), before);
  EXPECT_EQ(client.ask("r"), testing::refusal("r"));
}

// The second root's sockets have paths that no socket address can hold.
TEST(StartUp, ServesFromSocketsWithTheirModesAndTakesThemAway) {
  for (const std::string& below : {std::string("/root"), "/" + std::string(150, 'r')}) {
    const DeviceRoot root(below);
    DaemonProcess killed(root);
    killed.end(SIGKILL);
    DaemonProcess daemon(root);
    EXPECT_EQ(mode_of(root.socket(wire::public_service)), 0666u);
    EXPECT_EQ(mode_of(root.socket(wire::admin_service)), 0600u);

    client::Connection admin(wire::admin_service, root.at(""));
    const auto stored = client::store_regulatory_images(admin, plist::String::create("images"));
    EXPECT_EQ(stored.outcome, client::Outcome::answered);
    EXPECT_EQ(daemon.end(SIGTERM), 0) << daemon.standard_error();
    EXPECT_EQ(std::distance(fs::directory_iterator(root.at("/run/corvaned")), {}), 1);  // the lock
  }
}

}  // namespace
}  // namespace corvane
