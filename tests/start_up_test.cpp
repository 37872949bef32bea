#include <gtest/gtest.h>

#include <sys/stat.h>

#include "client/client.h"
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
  EXPECT_TRUE(daemon.standard_error().starts_with("corvaned: ")) << daemon.standard_error();
  EXPECT_EQ(daemon.log().size(), 1u) << daemon.standard_error();
}

TEST(StateDirectory, IsMadeOrGetsItsMode) {
  const DeviceRoot absent, present;
  fs::create_directory(present.at(state_directory));
  for (const DeviceRoot* root : {&absent, &present}) {
    const DaemonProcess daemon(*root);
    EXPECT_EQ(mode_of(root->at(state_directory)), 0700u);
  }
}

TEST(StateDirectory, CanBeDoneWithoutAndIsNotFollowedWhereItIsALink) {
  const DeviceRoot linked, without_library;
  const std::string target = linked.at("/target"), link = linked.at(state_directory);
  ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
  fs::create_directory_symlink(target, link);
  const DaemonProcess with_link(linked);
  EXPECT_EQ(mode_of(target), 0755u);
  EXPECT_NE(with_link.standard_error().find("lockstart_local: couldn't open " + link + "\n"), std::string::npos);

  const std::string path = without_library.at(state_directory);
  fs::remove_all(fs::path(path).parent_path());
  const DaemonProcess without(without_library);
  EXPECT_NE(without.standard_error().find("lockstart_local: Could not mkdir " + path + " : No such file"),
            std::string::npos);
}

TEST(StartUp, StoresTheArkAndGivesFilesTheirModesUnderAnyUmask) {
  const DeviceRoot root;
  fs::create_directory(root.at(state_directory));
  testing::write_file(root.at(ark_file), "<plist><dict><key>-key</key><string>value</string></dict></plist>");
  const mode_t own_mask = umask(077);
  const DaemonProcess daemon(root);
  umask(own_mask);
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
                                                        {"CORVANE_ROOT", root.at("/run/..")},
                                                        {"CORVANE_ROOT", root.at("/no")},
                                                        {"CORVANE_ROOT", root.profile()},
                                                        {"CORVANE_PLATFORM", "Linux"},
                                                        {"CORVANE_LOG_STDERR", "yes"},
                                                        {"CORVANE_PROFILE", ""},
                                                        {"CORVANE_PROFILE", root.at("/missing")},
                                                        {"CORVANE_PROFILE", root.at("/run")},
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

// A root of this length, whose folders have names of at most 200 bytes.
std::string long_root(size_t length) {
  const size_t base = testing::DeviceRoot("").at("").size();
  std::string below;
  while (base + below.size() < length) {
    below += "/" + std::string(std::min<size_t>(200, length - base - below.size() - 1), 'r');
  }
  return below;
}

TEST(StartUp, RefusesARootUnderWhichAPathWouldBeCut) {
  const DeviceRoot longest(long_root(root_limit)), too_long(long_root(root_limit + 1));
  ASSERT_EQ(longest.at(images_file).size(), path_limit);
  const DaemonProcess daemon(longest);
  EXPECT_TRUE(store_images(longest) && fs::exists(longest.at(images_file)));
  const Lines before = too_long.listing();
  expect_refused(too_long.environment());
  EXPECT_TRUE(too_long.listing() == before) << "something was touched";
}

TEST(StartUp, RefusesToRunBesideAnotherDaemon) {
  const DeviceRoot root;
  DaemonProcess first(root);
  const Lines before = root.listing();
  EXPECT_EQ(first.log().front(), "main: ____________________ Corvane startup _____________________");
  DaemonProcess second(root.environment());
  EXPECT_EQ(second.end(), 1);
  EXPECT_EQ(second.log(), Lines{"corvaned: another daemon holds " + root.at("/run/corvaned/corvaned.lock")});
  EXPECT_EQ(root.listing(), before);
  EXPECT_EQ(RawClient(root.socket(wire::public_service)).ask("r"), testing::refusal("r"));
}

// Also below a root under which the sockets have paths that no socket address can hold.
TEST(StartUp, ReplacesTheSocketsOfAKilledDaemonAndTakesItsOwnAway) {
  for (const std::string& below : {std::string("/root"), "/" + std::string(150, 'r')}) {
    const DeviceRoot root(below);
    DaemonProcess killed(root);
    killed.end(SIGKILL);
    DaemonProcess daemon(root);
    EXPECT_EQ(mode_of(root.socket(wire::public_service)), 0666u);
    EXPECT_EQ(mode_of(root.socket(wire::admin_service)), 0600u);
    EXPECT_EQ(daemon.end(SIGTERM), 0) << daemon.standard_error();
    EXPECT_EQ(std::distance(fs::directory_iterator(root.at("/run/corvaned")), {}), 1) << "the lock stays";
  }
}

TEST(StartUp, IgnoresHangupAndUnblocksTheSignalsThatEndTheDaemon) {
  sigset_t all, own_mask;
  sigfillset(&all);
  const DeviceRoot root;
  for (const int signal : {SIGTERM, SIGINT}) {
    pthread_sigmask(SIG_BLOCK, &all, &own_mask);
    DaemonProcess daemon(root);
    pthread_sigmask(SIG_SETMASK, &own_mask, nullptr);
    EXPECT_EQ(daemon.end(signal), 0) << "blocked by the parent: " << strsignal(signal);
  }
  const DaemonProcess daemon(root);
  kill(daemon.pid(), SIGHUP);
  EXPECT_EQ(RawClient(root.socket(wire::public_service)).ask("r"), testing::refusal("r"));
}

}  // namespace
}  // namespace corvane
