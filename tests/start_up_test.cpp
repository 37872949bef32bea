#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/un.h>

#include "client/client.h"
#include "client/methods.h"
#include "platform/files.h"
#include "tests/support/daemon_process.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::DaemonProcess;
using testing::DeviceRoot;
using testing::Lines;
using testing::RawClient;

constexpr char state_directory[] = "/private/var/mobile/Library/cvd";
constexpr char ark_file[] = "/private/var/mobile/Library/cvd/data_ark.plist";
constexpr char images_file[] = "/private/var/mobile/Library/cvd/regulatory_images/regulatory_images.plist";

unsigned mode_of(const std::string& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

bool store_images(const DeviceRoot& root) {
  client::Connection admin(wire::admin_service, root.at(""));
  const auto result = client::store_regulatory_images(admin, plist::String::create("images"));
  return result.outcome == client::Outcome::answered;
}

void expect_refused(const testing::Environment& environment) {
  DaemonProcess daemon(environment);
  EXPECT_EQ(daemon.end(), 1);
  const Lines lines = daemon.log();
  EXPECT_TRUE(lines.size() == 1 && lines[0].starts_with("corvaned: ")) << daemon.standard_error();
}

TEST(StateDirectory, IsNotFollowedWhereItIsALink) {
  const DeviceRoot root;
  const std::string target = root.at("/target"), link = root.at(state_directory);
  ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
  fs::create_directory_symlink(target, link);
  const DaemonProcess daemon(root);
  EXPECT_EQ(mode_of(target), 0755u);
  EXPECT_NE(daemon.standard_error().find("lockstart_local: couldn't open " + link + "\n"), std::string::npos);
}

TEST(StartUp, StoresTheArkAndGivesFilesTheirModesUnderAnyUmask) {
  const DeviceRoot root;
  fs::create_directory(root.at(state_directory));
  testing::write_file(root.at(ark_file), "<plist><dict><key>-key</key><string>value</string></dict></plist>");
  const mode_t own_mask = umask(077);
  const DaemonProcess daemon(root);
  umask(own_mask);
  EXPECT_EQ(mode_of(root.at(state_directory)), 0700u);
  EXPECT_TRUE(testing::read_file(root.at(ark_file)).starts_with("bplist00")) << "written anew, in binary";
  EXPECT_EQ(mode_of(root.at(ark_file)), 0644u);
  ASSERT_TRUE(store_images(root));
  EXPECT_EQ(mode_of(root.at(images_file)), 0644u);
  EXPECT_EQ(mode_of(fs::path(root.at(images_file)).parent_path()), 0755u);
}

TEST(StartUp, RefusesABadEnvironmentAndTouchesNothing) {
  const DeviceRoot root;
  fs::create_directory_symlink(root.at(""), root.at("") + "-link");
  const std::string garbage = root.profile() + "-garbage";
  testing::write_file(garbage, "no property list");
  const std::pair<const char*, std::string> faults[] = {{"CORVANE_ROOT", root.at("").substr(1)},
                                                        {"CORVANE_ROOT", root.at("/")},
                                                        {"CORVANE_ROOT", root.at("-link")},
                                                        {"CORVANE_ROOT", root.profile()},
                                                        {"CORVANE_PLATFORM", "Linux"},
                                                        {"CORVANE_LOG_STDERR", "yes"},
                                                        {"CORVANE_PROFILE", ""},
                                                        {"CORVANE_PROFILE", garbage}};
  const Lines before = root.listing();
  for (const auto& [variable, value] : faults) {
    SCOPED_TRACE(std::string(variable) + "=" + value);
    testing::Environment environment = root.environment();
    environment[variable] = value;
    expect_refused(environment);
  }
  EXPECT_EQ(root.listing(), before);
}

// Folders that make a root of this length.
std::string long_root(size_t length) {
  std::string below;
  for (size_t left = length - DeviceRoot("").at("").size(); left > 0; left -= std::min<size_t>(200, left)) {
    below += "/" + std::string(std::min<size_t>(200, left) - 1, 'r');
  }
  return below;
}

TEST(StartUp, RefusesARootUnderWhichAPathWouldBeCut) {
  const DeviceRoot longest(long_root(root_limit)), too_long(long_root(root_limit + 1));
  ASSERT_EQ(longest.at(images_file).size(), path_limit);
  const DaemonProcess daemon(longest);
  EXPECT_EQ(mode_of(longest.at(state_directory)), 0700u);
  EXPECT_TRUE(store_images(longest) && fs::exists(longest.at(images_file)));
  const Lines before = too_long.listing();
  expect_refused(too_long.environment());
  EXPECT_TRUE(too_long.listing() == before) << "something was touched";
}

TEST(StartUp, RefusesToRunBesideAnotherDaemon) {
  const DeviceRoot root;
  DaemonProcess first(root);
  EXPECT_EQ(first.log().front(), "main: ____________________ Corvane startup _____________________");
  DaemonProcess second(root.environment());
  EXPECT_EQ(second.end(), 1);
  EXPECT_EQ(second.log(), Lines{"corvaned: another daemon holds " + root.at("/run/corvaned/corvaned.lock")});
  EXPECT_EQ(RawClient(root.socket(wire::public_service)).ask("r"), testing::refusal("r"));
}

// The public socket's path fits easily into a socket address, just fits, is one byte too long, or far too long.
TEST(StartUp, ReplacesTheSocketsOfAKilledDaemonAndTakesItsOwnAway) {
  const size_t fitting = sizeof(sockaddr_un::sun_path) - 1 - DeviceRoot("").socket(wire::public_service).size();
  const size_t held_before = testing::open_descriptors();
  for (const size_t length : {size_t{5}, fitting, fitting + 1, size_t{150}}) {
    const DeviceRoot root("/" + std::string(length - 1, 'r'));
    DaemonProcess killed(root);
    killed.end(SIGKILL);
    DaemonProcess daemon(root);
    EXPECT_EQ(mode_of(root.socket(wire::public_service)), 0666u);
    EXPECT_EQ(mode_of(root.socket(wire::notification_service)), 0666u);
    EXPECT_EQ(mode_of(root.socket(wire::admin_service)), 0600u);
    EXPECT_EQ(daemon.end(SIGTERM), 0) << daemon.standard_error();
    EXPECT_EQ(std::distance(fs::directory_iterator(root.at("/run/corvaned")), {}), 1) << "the lock stays";
  }
  EXPECT_EQ(testing::open_descriptors(), held_before) << "the client library leaks";
}

TEST(StartUp, IgnoresHangupAndUnblocksTermination) {
  sigset_t all, own_mask;
  sigfillset(&all);
  const DeviceRoot root;
  pthread_sigmask(SIG_BLOCK, &all, &own_mask);
  DaemonProcess daemon(root);
  pthread_sigmask(SIG_SETMASK, &own_mask, nullptr);
  EXPECT_EQ(daemon.end(SIGTERM), 0);

  DaemonProcess other(root);
  kill(other.pid(), SIGHUP);
  EXPECT_EQ(other.end(SIGINT), 0);
}

}  // namespace
}  // namespace corvane
