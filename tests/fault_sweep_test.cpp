#include <gtest/gtest.h>

#include <optional>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "plist/reader.h"
#include "tests/support/daemon_process.h"
#include "tests/support/fault_plan.h"

// Whatever fails, and whenever, the daemon answers or refuses, loses nothing that it has stored, and serves as
// before when the fault is gone. A sweep lets the first call of a kind fail, then the second, and so on until
// there are no more. The shim and a sanitizer would stand in front of the same functions: release builds only.

namespace corvane::testing {
namespace {

constexpr char copy_images[] = "copyRegulatoryImagesWithCompletionBlock:";

struct Fault {
  const char* name;
  int error;
  uint32_t calls;
  bool lasts = false;  ///< every call from the chosen one on fails
};
constexpr uint32_t any = opening | naming | moving | managing;
const std::vector<Fault> faults = {{"EIO", EIO, any},
                                   {"ENOSPC", ENOSPC, any},
                                   {"EACCES", EACCES, opening | naming},
                                   {"EMFILE", EMFILE, opening},
                                   {"EINTR", EINTR, opening | moving},
                                   {"half", 0, moving},
                                   {"ENOMEM", ENOMEM, allocating},
                                   {"ENOMEM for long", ENOMEM, allocating, true}};

std::string request_with(std::string_view selector, std::string_view key, plist::Ref<plist::Value> value) {
  const auto request = wire::make_request(selector);
  request->set(key, std::move(value));
  return frame(*request);
}

std::string store(plist::Ref<plist::Value> images) {
  return request_with(wire::store_regulatory_images, wire::images_key, std::move(images));
}

std::string dictionary(const std::string& key, const std::string& value) {
  return "<dict><key>" + key + "</key>" + value + "</dict>";
}

/// A device, its daemon, and what fails in it.
struct Device : DeviceRoot {
  explicit Device(const std::string& platform) {
    environment_["CORVANE_PLATFORM"] = platform;
    environment_["CORVANE_FAULTS"] = profile() + ".faults";
    environment_["LD_PRELOAD"] = CORVANE_FAULT_SHIM;
    write_file(environment_["CORVANE_FAULTS"], std::string(sizeof(FaultPlan), '\0'));
    const int file = open(environment_["CORVANE_FAULTS"].c_str(), O_RDWR | O_CLOEXEC);
    plan = static_cast<FaultPlan*>(mmap(nullptr, sizeof *plan, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    close(file);
    std::filesystem::create_directories(at("/etc/corvaned"));
    write_file(at("/etc/corvaned/properties.plist"), "<plist>" + version_ + "</plist>");
    write_ark();
    insert_sim();
  }
  ~Device() { munmap(plan, sizeof *plan); }

  void write_ark() const {
    std::filesystem::remove_all(home + "/Library/cvd");
    std::filesystem::create_directory(home + "/Library/cvd");
    write_file(ark_path, "<plist>" + dictionary("-Kept", "<true/>") + "</plist>");
  }
  void insert_sim() {
    const std::string sim = dictionary("SIMIdentity", "<string>" + std::to_string(++sim_) + "</string>");
    write_file(at("/profile"),
               "<plist><dict><key>Properties</key>" + version_ + "<key>Telephony</key>" + sim + "</dict></plist>");
    std::filesystem::rename(at("/profile"), profile());
  }
  void start() { daemon.emplace(environment_); }
  void start_and_wait() {
    start();
    ASSERT_TRUE(eventually([&] { return serves(); })) << daemon->standard_error();
    while (!settled_) {
      usleep(50'000);
      settled_ = std::exchange(usual_descriptors_, daemon->descriptors()) == usual_descriptors_;
    }
  }
  bool has_ended() const {
    siginfo_t ended{};
    const auto pid = static_cast<id_t>(daemon->pid());
    return waitid(P_PID, pid, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0;
  }
  void arm(const Fault& fault, int64_t first) const {
    plan->error = fault.error;
    plan->first = first;
    plan->last = fault.lasts ? INT64_MAX : first;
    plan->seen = plan->failed = 0;
    plan->calls = fault.calls;
  }
  void disarm() const { plan->calls = 0; }

  /// Sends a request and waits for an answer or an end. What fails for ever may keep them back until it is gone.
  void ask(std::string_view service, std::string_view bytes) const {
    RawClient client(socket(service));
    client.send(bytes);
    client.finish();
    if (!client.has_news(50)) disarm();
    EXPECT_TRUE(client.has_news(20'000)) << "silence after " << plan->name;
    EXPECT_TRUE(!client.response() || client.ends());
  }
  /// Whether the public socket answers and another one is there.
  bool serves(std::string_view other = wire::notification_service) const try {
    const RawClient connected(socket(other));
    return RawClient(socket(wire::public_service)).ask(copy_images).starts_with("{");
  } catch (const std::runtime_error&) {
    return false;
  }
  /// Whether images can be stored and come back, and there is a new line on the disk.
  bool works() try {
    const std::string before = log(), images = "images " + std::to_string(++images_);
    RawClient operating(socket(wire::admin_service)), client(socket(wire::public_service));
    if (!operating.send(store(plist::String::create(images))) || !operating.response()) return false;
    if (!client.send(request("?") + request(copy_images)) || !client.response()) return false;
    return client.answer().find("\"RegulatoryImages\": \"" + images + '"') != std::string::npos && log() != before;
  } catch (const std::runtime_error&) {
    return false;
  }
  /// The log on the disk, of which every line must be whole.
  std::string log() const {
    std::istringstream text(read_file(home + "/Library/Logs/corvaned/corvaned.log"));
    for (std::string line; std::getline(text, line);) {
      EXPECT_TRUE(line.starts_with("20") && line.find("> CV: ") != std::string::npos) << line;
    }
    return text.str();
  }
  /// The ark's file, or the one that was set aside, as a whole; null where there is none.
  plist::Ref<plist::Dictionary> ark(const char* suffix = "") const {
    const auto bytes = plist::Data::create(read_file(ark_path + suffix));
    const plist::Ref<plist::Value> value = plist::decode(bytes, plist::Containers::immutable).value;
    auto* entries = plist::cast<plist::Dictionary>(value.get());
    return entries != nullptr && entries->get("-Kept") != nullptr ? entries : nullptr;
  }
  /// A store that has no memory to gather what it should write takes the file away until the next one.
  bool has_stored_sim() const {
    const auto entries = ark();
    EXPECT_TRUE(entries || (plan->failed != 0 && plan->error == ENOMEM)) << "the ark is lost after " << plan->name;
    const auto sim = plist::String::create(std::to_string(sim_));
    return entries && plist::equal(entries->get("-IntegratedCircuitCardIdentity"), sim.get());
  }
  /// Nothing is left of a fault that is gone. Lack of memory may have ended the process.
  void expect_recovery() {
    disarm();
    plan->seconds_ahead += 2;  // what waits before it tries again need not
    if (!works()) {
      ASSERT_TRUE(plan->error == ENOMEM && daemon->end() == 255) << plan->name << "\n" << daemon->standard_error();
      start_and_wait();
    }
    // The event loops make do with a pipe where there is no eventfd.
    const size_t limit = usual_descriptors_ + (plan->name == std::string("eventfd") ? 1 : 0);
    EXPECT_TRUE(eventually([&] { return daemon->descriptors() <= limit; })) << "leak after " << plan->name;
  }

  const std::string home = at("/private/var/mobile"), ark_path = home + "/Library/cvd/data_ark.plist";
  FaultPlan* plan = nullptr;
  std::optional<DaemonProcess> daemon;

 private:
  const std::string version_ = dictionary("ProductVersion", "<string>1</string>");
  size_t usual_descriptors_ = 0;
  bool settled_ = false;
  Environment environment_ = environment();
  int images_ = 0, sim_ = 0;
};

using Operation = std::function<void(const Fault& fault, int64_t call)>;

void sweep(Device& device, const std::string& phase, const Operation& operation) {
  for (const Fault& fault : faults) {
    for (int64_t call = 1;; ++call) {
      SCOPED_TRACE(phase + ", " + fault.name + " at call " + std::to_string(call));
      operation(fault, call);
      device.expect_recovery();
      if (::testing::Test::HasFatalFailure()) return;
      if (device.plan->failed != 0) continue;
      ::testing::Test::RecordProperty(phase + ", " + fault.name, std::to_string(call - 1));
      break;
    }
  }
}

TEST(FaultSweep, RequestsAreServedAfterEachFailure) {
  Device device("linux");
  device.start_and_wait();
  const auto sweep_request = [&](const char* phase, std::string_view service, const std::string& bytes) {
    sweep(device, phase, [&](const Fault& fault, int64_t call) {
      device.arm(fault, call);
      device.ask(service, bytes);
    });
  };
  sweep_request("log line", wire::public_service, request("?"));
  sweep_request("copy images", wire::public_service, request(copy_images));
  sweep_request("store images", wire::admin_service, store(plist::Number::create_int32(0)));
  sweep_request("entitlements", wire::admin_service,
                request_with(wire::copy_entitlements, wire::pid_key, plist::Number::create_int32(getpid())));
}

TEST(FaultSweep, SimChangesAreStoredAfterEachFailure) {
  Device device("simulated");
  device.start_and_wait();
  sweep(device, "SIM change", [&](const Fault& fault, int64_t call) {
    device.arm(fault, call);
    device.insert_sim();
    EXPECT_TRUE(eventually([&] { return device.has_stored_sim() || device.plan->failed != 0; }));
    usleep(5000);
    device.disarm();
    device.insert_sim();
    EXPECT_TRUE(eventually([&] { return device.has_stored_sim() || device.has_ended(); })) << device.plan->name;
  });
  const std::filesystem::directory_iterator kept(device.home + "/Library/cvd");
  EXPECT_LE(std::distance(begin(kept), end(kept)), 3) << "the ark, its temporary file, the folder of the images";
}

// Kills the daemon at the first call that follows a SIM change, then at the second, and so on.
TEST(FaultSweep, AKilledStoreLeavesTheOldArkOrTheNewOne) {
  Device device("simulated");
  int64_t call = 1;
  for (;; ++call) {
    SCOPED_TRACE("killed at call " + std::to_string(call));
    device.start_and_wait();
    device.arm({"kill", killed, any}, call);
    device.insert_sim();
    EXPECT_TRUE(eventually([&] { return device.has_stored_sim() || device.plan->failed != 0; }));
    usleep(5000);
    device.disarm();
    if (device.plan->failed == 0) break;
    EXPECT_EQ(device.daemon->end(), -SIGKILL);
    EXPECT_TRUE(device.ark()) << "the ark is lost after " << device.plan->name;
  }
  EXPECT_GT(call, 10) << "it was never killed while it stored";
}

TEST(FaultSweep, AStartUpServesOrRefuses) {
  Device device("simulated");
  device.start_and_wait();
  sweep(device, "start-up", [&](const Fault& fault, int64_t call) {
    // Before `main` lack of memory aborts, and while the log is opened it costs the log.
    if (fault.calls == allocating) return device.disarm();
    device.daemon.reset();
    device.write_ark();
    device.arm(fault, call);
    device.start();
    EXPECT_TRUE(eventually([&] {
      device.plan->seconds_ahead += 1;
      if (device.has_ended()) return true;
      if (!device.serves(wire::admin_service)) return false;
      device.disarm();
      return device.serves();
    })) << device.plan->name;
    EXPECT_TRUE(device.ark() || device.ark(".unreadable")) << "the ark is lost after " << device.plan->name;
    if (!device.has_ended()) return;
    const std::string error = device.daemon->standard_error();
    const int status = device.daemon->end();
    const bool is_refusal = error.starts_with("corvaned: ") && error.find('\n') == error.size() - 1;
    EXPECT_TRUE(is_refusal ? status == 1 : status == 255) << device.plan->name << ": " << status << "\n" << error;
    device.disarm();
    device.start_and_wait();
  });
}

TEST(FaultSweep, AFullDiskOrAReadOnlyOneIsServedOnUntilItRecovers) {
  Device device("simulated");
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", device.home.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "no file system can be mounted here: " << std::strerror(errno);
  }
  std::filesystem::create_directories(device.home + "/Library/Logs");
  device.write_ark();
  EXPECT_EQ(mount("none", device.home.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, "size=64k"), 0);
  device.start_and_wait();
  EXPECT_TRUE(device.ark() && !device.works());
  EXPECT_EQ(mount("none", device.home.c_str(), nullptr, MS_REMOUNT, "size=64k"), 0);
  for (int round = 0; round < 3; ++round) {
    std::filesystem::remove(device.home + "/filler");
    device.plan->seconds_ahead += 2;
    EXPECT_TRUE(device.works());
    device.insert_sim();
    EXPECT_TRUE(eventually([&] { return device.has_stored_sim(); }));
    write_file(device.home + "/filler", std::string(1 << 17, '.'));
    device.insert_sim();
    for (int line = 0; line < 1000; ++line) device.ask(wire::public_service, request("?"));
    RawClient operating(device.socket(wire::admin_service));
    operating.send(store(plist::Data::create(std::string(1 << 17, '.'))));
    EXPECT_NE(operating.answer().find(R"("Code": 2)"), std::string::npos);
    EXPECT_TRUE(device.ark());
  }
  device.daemon.reset();
  umount2(device.home.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace corvane::testing
