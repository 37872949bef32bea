#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

#include "client/client.h"
#include "tests/support/daemon_process.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::DaemonProcess;
using testing::DeviceRoot;
using testing::Lines;
using testing::RawClient;

constexpr char library[] = "/private/var/mobile/Library";
constexpr char state_directory[] = "/private/var/mobile/Library/cvd";

unsigned mode_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// Whether the lines hold these, in this order, whatever stands between them.
bool holds_in_order(const Lines& lines, const Lines& wanted) {
  auto next = wanted.begin();
  for (const std::string& line : lines) {
    if (next != wanted.end() && line == *next) ++next;
  }
  return next == wanted.end();
}

TEST(StartUp, MakesTheStateDirectoryAndForcesItsMode) {
  for (const bool exists : {false, true}) {
    const DeviceRoot root;
    if (exists) fs::create_directory(root.at(state_directory));
    const DaemonProcess daemon(root);
    EXPECT_EQ(mode_of(root.at(state_directory)), 0700u);
    const Lines log = daemon.log();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), "main: ____________________ Corvane startup _____________________");
    for (const std::string& line : log) EXPECT_EQ(line.find("lockstart_local"), line.npos) << line;
  }
}

TEST(StartUp, GoesOnWithoutAUsableStateDirectory) {
  const std::string couldnt_open = "lockstart_local: couldn't open ";
  const DeviceRoot linked;
  ASSERT_EQ(mkdir(linked.at("/target").c_str(), 0755), 0);
  fs::create_directory_symlink(linked.at("/target"), linked.at(state_directory));
  const DaemonProcess linked_daemon(linked);
  EXPECT_TRUE(holds_in_order(linked_daemon.log(), {couldnt_open + linked.at(state_directory)}));
  EXPECT_EQ(mode_of(linked.at("/target")), 0755u);

  // The log's folder goes with it; standard error has the lines all the same.
  const DeviceRoot without_library;
  fs::remove_all(without_library.at(library));
  const DaemonProcess daemon(without_library);
  const std::string path = without_library.at(state_directory);
  const std::string none = ": No such file or directory";
  EXPECT_TRUE(holds_in_order(
      daemon.log(), {"lockstart_local: Could not mkdir " + path + " :" + none.substr(1),
                     "log_file_info: Can't stat " + path + none,
                     "log_file_info: Can't stat " + without_library.at(library) + none, couldnt_open + path}))
      << daemon.standard_error();
  EXPECT_FALSE(fs::exists(without_library.at(library)));
}

TEST(StartUp, RefusesABadEnvironmentAndTouchesNothing) {
  const DeviceRoot root;
  fs::create_directory_symlink(root.at(""), root.at("") + "-link");
  const std::string garbage = root.profile() + "-garbage";
  testing::write_file(garbage, "no property list");
  const std::pair<const char*, std::string> faults[] = {
      {"CORVANE_ROOT", root.at("").substr(1)},
      {"CORVANE_ROOT", root.at("/")},
      {"CORVANE_ROOT", root.at("-link")},
      {"CORVANE_ROOT", root.at("/run/..")},
      {"CORVANE_ROOT", root.at("/missing")},
      {"CORVANE_ROOT", root.profile()},
      {"CORVANE_PLATFORM", "Linux"},
      {"CORVANE_PROFILE", ""},
      {"CORVANE_PROFILE", root.at("/missing")},
      {"CORVANE_PROFILE", root.at("/run")},
      {"CORVANE_PROFILE", garbage},
      {"CORVANE_LOG_STDERR", "yes"},
  };
  const Lines before = root.listing();
  for (const auto& [variable, value] : faults) {
    testing::Environment environment = root.environment();
    environment[variable] = value;
    DaemonProcess daemon(environment);
    EXPECT_EQ(daemon.end(), 1) << variable << "=" << value;
    const Lines lines = daemon.log();
    EXPECT_TRUE(lines.size() == 1 && lines[0].starts_with("corvaned: ")) << daemon.standard_error();
  }
  EXPECT_EQ(root.listing(), before);
}

TEST(StartUp, RefusesToRunBesideAnotherDaemon) {
  const DeviceRoot root;
  DaemonProcess first(root);
  RawClient client(root.socket(wire::public_service));
  const std::string answer = client.ask(wire::copy_regulatory_images);
  const std::string log_file = root.at("/var/mobile/Library/Logs/corvaned/corvaned.log");
  const std::string log = testing::read_file(log_file);
  EXPECT_NE(log.find("CV: main: ____________________ Corvane startup _____________________\n"), log.npos);
  const Lines before = root.listing();

  DaemonProcess second(root.environment());
  EXPECT_EQ(second.end(), 1);
  EXPECT_EQ(second.log(), Lines{"corvaned: another daemon holds " + root.at("/run/corvaned/corvaned.lock")});
  EXPECT_EQ(root.listing(), before);
  EXPECT_EQ(testing::read_file(log_file), log);
  EXPECT_EQ(client.ask(wire::copy_regulatory_images), answer);
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
    const auto stored = client::store_regulatory_images(admin, plist::String::create("images"));
    EXPECT_TRUE(stored.outcome == client::Outcome::answered && !stored.response.failed) << stored.detail;
    EXPECT_TRUE(client::copy_regulatory_images(connection).response.reply);

    EXPECT_EQ(daemon.end(SIGTERM), 0) << daemon.standard_error();
    for (const auto& left : fs::directory_iterator(root.at("/run/corvaned"))) {
      EXPECT_EQ(left.path().filename(), "corvaned.lock");
    }
  }
}

}  // namespace
}  // namespace corvane
