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

Lines lockstart_lines(const DaemonProcess& daemon) {
  Lines lines = daemon.log();
  std::erase_if(lines, [](const std::string& line) { return !line.starts_with("lockstart_local: "); });
  return lines;
}

TEST(StartUp, MakesTheStateDirectoryAndForcesItsMode) {
  for (const bool exists : {false, true}) {
    const DeviceRoot root;
    if (exists) fs::create_directory(root.at(state_directory));
    const DaemonProcess daemon(root);
    EXPECT_EQ(mode_of(root.at(state_directory)), 0700u);
    EXPECT_EQ(daemon.log().front(), "main: ____________________ Corvane startup _____________________");
    EXPECT_EQ(lockstart_lines(daemon), Lines{});
  }
}

TEST(StartUp, GoesOnWithoutAUsableStateDirectory) {
  const std::string couldnt_open = "lockstart_local: couldn't open ";
  const DeviceRoot linked;
  ASSERT_EQ(mkdir(linked.at("/target").c_str(), 0755), 0);
  fs::create_directory_symlink(linked.at("/target"), linked.at(state_directory));
  EXPECT_EQ(lockstart_lines(DaemonProcess(linked)), Lines{couldnt_open + linked.at(state_directory)});
  EXPECT_EQ(mode_of(linked.at("/target")), 0755u);

  // The log's folder goes with it; standard error has the lines all the same.
  const DeviceRoot without_library;
  const std::string path = without_library.at(state_directory);
  const std::string library = fs::path(path).parent_path();
  fs::remove_all(library);
  const DaemonProcess daemon(without_library);
  const Lines lines{"lockstart_local: Could not mkdir " + path + " : No such file or directory",
                    couldnt_open + path};
  EXPECT_EQ(lockstart_lines(daemon), lines);
  EXPECT_NE(daemon.standard_error().find("log_file_info: Can't stat " + library + ": No such"), std::string::npos);
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
      {"CORVANE_LOG_STDERR", {"yes"}},
  };
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
  const std::string log_file = root.at("/var/mobile/Library/Logs/corvaned/corvaned.log");
  const std::string log = testing::read_file(log_file);
  EXPECT_NE(log.find("CV: main: ____________________ Corvane startup _____________________\n"), log.npos);
  const Lines before = root.listing();

  DaemonProcess second(root.environment());
  EXPECT_EQ(second.end(), 1);
  EXPECT_EQ(second.log(), Lines{"corvaned: another daemon holds " + root.at("/run/corvaned/corvaned.lock")});
  EXPECT_EQ(root.listing(), before);
  EXPECT_EQ(testing::read_file(log_file), log);
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

    client::Connection connection(wire::public_service, root.at(""));
    client::Connection admin(wire::admin_service, root.at(""));
    client::store_regulatory_images(admin, plist::String::create("images"));
    EXPECT_TRUE(client::copy_regulatory_images(connection).response.reply);

    EXPECT_EQ(daemon.end(SIGTERM), 0) << daemon.standard_error();
    for (const auto& left : fs::directory_iterator(root.at("/run/corvaned"))) {
      EXPECT_EQ(left.path().filename(), "corvaned.lock");
    }
  }
}

}  // namespace
}  // namespace corvane
