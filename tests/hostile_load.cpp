// Nobody can take the service from anybody else. For each attack the real daemon meets attackers in processes of
// their own, as another user or as other processes of the same user, while two honest clients ask all the time:
// one keeps its connection, one connects anew for each question. Every question must be answered, soon, and the
// daemon's memory, descriptors, log and processor time stay bounded.
//
// Everybody but the daemon is forked from this process, which has one thread, and tells what it did in memory that
// all share. Run as root: other users attack only then.
//
// Usage: hostile_load [--short|--long [ATTACK]]

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <functional>
#include <grp.h>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "client/client.h"
#include "client/methods.h"
#include "fuzz/attacks.h"
#include "tests/support/daemon_process.h"
#include "tests/support/memory_group.h"
#include "tests/support/simulated_root.h"
#include "wire/limits.h"

namespace corvane {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Attack;

constexpr size_t mebibyte = size_t{1} << 20;
constexpr uid_t other_user = 65534;

constexpr double processor_share_limit = 0.05;
constexpr size_t log_limit = 2 * 65536;
constexpr size_t memory_limit = wire::memory_budget + 40 * mebibyte;  // and two copies of the images
constexpr size_t memory_group_limit = 256 * mebibyte;                 // beyond which the kernel ends the daemon
constexpr size_t memory_growth_limit = 8 * mebibyte;  // what the allocator may keep of the worst moment

/// What one run of the daemon has to live with.
struct Setting {
  rlim_t descriptors;
  size_t image_bytes;
  bool by_other_user;

  milliseconds wait_limit() const { return by_other_user && image_bytes < mebibyte ? 250ms : 1000ms; }
};

struct Form {
  milliseconds attack_time;
  std::vector<Setting> settings;
  bool stops_the_daemon;
};

#ifdef CORVANE_SANITIZE
constexpr bool sanitized = true;  // times and memory are not the daemon's own then
const Form short_form{1000ms, {{256, 64, true}}, false};
#else
constexpr bool sanitized = false;
const Form short_form{
    1500ms, {{256, 64, true}, {1024, 64, true}, {1024, 20 * mebibyte, true}, {1024, 64, false}}, false};
#endif
const Form long_form{10s,
                     {{256, 64, true},
                      {256, 64, false},
                      {256, 20 * mebibyte, true},
                      {256, 20 * mebibyte, false},
                      {1024, 64, true},
                      {1024, 64, false},
                      {1024, 20 * mebibyte, true},
                      {1024, 20 * mebibyte, false}},
                     true};

// ---- processes ----------------------------------------------------------------------------------------

/// How long an honest client waited for each answer, in microseconds.
struct Waits {
  std::atomic<size_t> count;
  std::array<uint32_t, 20'000> times;
  std::array<char, 200> failure;  ///< what became of the last question; empty where it was answered
};

/// The memory that all processes of one attack share.
struct Shared {
  std::atomic<bool> over;                   ///< honest clients end with the question that they are at
  std::array<std::atomic<size_t>, 4> done;  ///< by each attacker
  std::array<Waits, 3> waits;
};

Shared& shared() {
  static void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *static_cast<Shared*>(memory);
}

/// Processes that are ended with this object, and with this process.
class Children {
 public:
  Children() = default;
  ~Children() { end(); }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  void start(bool as_other_user, const std::function<void()>& work) {
    const pid_t parent = getpid();
    std::fflush(stdout);
    const pid_t child = fork();
    if (child != 0) return processes_.push_back(child);
    if (as_other_user && (setgroups(0, nullptr) != 0 || setgid(other_user) != 0 || setuid(other_user) != 0))
      _exit(1);
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // which a change of the user would have taken back
    if (getppid() != parent) _exit(1);
    try {
      work();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      _exit(1);
    }
    _exit(0);
  }

  /// Waits until all have ended by themselves. False where one has not within `time`.
  bool wait(milliseconds time) {
    const auto deadline = steady_clock::now() + time;
    while (!processes_.empty() && steady_clock::now() < deadline) {
      std::erase_if(processes_, [](pid_t each) { return waitpid(each, nullptr, WNOHANG) == each; });
      std::this_thread::sleep_for(1ms);
    }
    return processes_.empty();
  }

  /// False where one had ended before.
  bool end() {
    bool all_lived = true;
    for (const pid_t each : processes_) kill(each, SIGKILL);
    for (const pid_t each : processes_) {
      int status = 0;
      all_lived &= waitpid(each, &status, 0) == each && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }
    processes_.clear();
    return all_lived;
  }

 private:
  std::vector<pid_t> processes_;
};

// ---- honest clients -----------------------------------------------------------------------------------

// `ask` answers what went wrong, or nothing.
void ask_until_over(Waits& waits, const std::function<std::string(size_t)>& ask) {
  std::string failure;
  for (size_t i = 0; !shared().over && failure.empty() && i < waits.times.size(); ++i) {
    const auto start = steady_clock::now();
    try {
      failure = ask(i);
    } catch (const std::exception& error) {
      failure = error.what();
    }
    const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start);
    waits.times[waits.count] = static_cast<uint32_t>(wait.count());
    ++waits.count;
    std::this_thread::sleep_for(1ms);
  }
  failure.copy(waits.failure.data(), waits.failure.size() - 1);
}

// Every 16th question is for the images.
std::string ask(testing::RawClient& client, size_t i) {
  const bool for_images = i % 16 == 15;
  const std::string selector = for_images ? std::string(wire::copy_regulatory_images) : "r" + std::to_string(i);
  if (!client.send(testing::request(selector))) return "the connection was closed before question " + selector;
  const auto response = client.response();
  if (!response) return "the connection ended without an answer to " + selector;
  const auto* echo = plist::cast<plist::String>(response->get(wire::request_key));
  const bool is_right = echo != nullptr && echo->view() == selector;
  return is_right && (response->get(wire::reply_key) != nullptr) == for_images ? ""
                                                                               : "a wrong answer to " + selector;
}

void keep_one_connection(const testing::DeviceRoot& device, Waits& waits) {
  testing::RawClient client(device.socket(wire::public_service));
  ask_until_over(waits, [&](size_t i) { return ask(client, i); });
}

void connect_for_each_question(const testing::DeviceRoot& device, Waits& waits) {
  ask_until_over(waits, [&](size_t i) {
    testing::RawClient client(device.socket(wire::public_service));
    return ask(client, i);
  });
}

// Changes the phone number, which is announced; subscribes anew for every eighth time.
void hear_each_notification(const testing::SimulatedRoot& device, Waits& waits) {
  std::optional<testing::RawClient> subscriber;
  ask_until_over(waits, [&](size_t i) -> std::string {
    if (i % 8 == 0) subscriber.emplace(device.socket(wire::notification_service));
    device.replace({{"PhoneNumber", plist::String::create(std::to_string(i))}});
    const auto message = subscriber->response();
    wire::Notification heard;
    if (!message || !wire::read_notification(*message, heard)) return "a notification was not heard";
    const bool is_right = heard.name == "com.norvane.mobile.keelhold.phone_number_changed";
    return is_right ? "" : "not what was posted: " + plist::describe(message.get());
  });
}

// ---- the daemon, looked at from outside ---------------------------------------------------------------

double processor_time(pid_t pid) {
  clockid_t clock;
  timespec time{};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return NAN;
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

bool check(bool holds, const std::string& what) {
  if (!holds) std::printf("  FAILED: %s\n", what.c_str());
  return holds;
}

bool within(milliseconds time, const std::function<bool()>& question) {
  for (const auto deadline = steady_clock::now() + time; steady_clock::now() < deadline;) {
    if (question()) return true;
    std::this_thread::sleep_for(20ms);
  }
  return question();
}

// ---- the story ----------------------------------------------------------------------------------------

/// One run of the daemon, through all attacks.
class Trial {
 public:
  Trial(const Setting& setting, milliseconds attack_time) : setting_(setting), attack_time_(attack_time) {
    std::filesystem::permissions(std::filesystem::path(device_.profile()).parent_path(),
                                 std::filesystem::perms(0755));  // others reach the sockets too
    testing::Environment environment = device_.environment();
    environment.erase("CORVANE_LOG_STDERR");  // which nothing bounds
    daemon_.emplace(environment, setting.descriptors);
    group_.emplace(daemon_->pid());
  }

  bool run(const std::vector<Attack>& attacks, bool stops_the_daemon) {
    std::printf("%d descriptors, images of %zu bytes, attackers are %s\n", static_cast<int>(setting_.descriptors),
                setting_.image_bytes, setting_.by_other_user ? "another user" : "processes of the same user");
    if (!group_->exists()) std::printf("  no control group: what the kernel holds is not counted\n");
    if (!check(within(20s, [&] { return store_images(); }), "the daemon serves")) return false;
    if (setting_.image_bytes > mebibyte) group_->set_limit(memory_group_limit);
    bool passed = meet({"nobody", {}}, 500ms);
    const size_t descriptors_before = daemon_->descriptors();
    const size_t memory_before = memory();
    for (const Attack& attack : attacks) passed &= meet(attack, attack_time_);
    if (stops_the_daemon) passed &= meet(testing::slow_writers, attack_time_, 7s);

    passed &= check(within(10s, [&] { return daemon_->descriptors() <= descriptors_before; }),
                    "the descriptors come back: " + std::to_string(daemon_->descriptors()) + " after " +
                        std::to_string(descriptors_before));
    const auto memory_is_back = [&] { return memory() <= memory_before + memory_growth_limit; };
    passed &= check(sanitized || within(10s, memory_is_back), "the memory comes back");
    const size_t memory_after = memory();
    const double share = processor_share_at_the_limit();
    passed &=
        check(sanitized || share < processor_share_limit, "the processor rests while nobody can be accepted");
    passed &= check_log();
    const milliseconds end = end_under_attack();
    passed &= check(end != milliseconds::max(), "the daemon ends with status 0");
    passed &= check(sanitized || end < 1s, "the daemon ends within a second");
    std::printf("  memory: %zu KiB before, %zu KiB after; processor at the limit: %.1f %%; end: %d ms\n",
                memory_before / 1024, memory_after / 1024, 100 * share, static_cast<int>(end.count()));
    return passed;
  }

 private:
  void start(Children& attackers, const Attack& attack) const {
    const testing::Target target{device_.socket(wire::public_service), device_.socket(wire::notification_service),
                                 wire::connection_limits(setting_.descriptors).public_connections + 50};
    for (size_t i = 0; i < attack.attackers.size(); ++i) {
      attackers.start(setting_.by_other_user, [&, i] { attack.attackers[i](target, shared().done[i]); });
    }
  }

  // Honest clients ask while the attack goes on, in the middle of which the daemon is stopped for a while.
  bool meet(const Attack& attack, milliseconds time, milliseconds stop = 0ms) {
    new (&shared()) Shared{};
    Children honest, attackers;
    honest.start(false, [&] { keep_one_connection(device_, shared().waits[0]); });
    honest.start(false, [&] { connect_for_each_question(device_, shared().waits[1]); });
    if (attack.attackers == testing::unread_subscriptions.attackers) {
      honest.start(false, [&] { hear_each_notification(device_, shared().waits[2]); });
    }
    start(attackers, attack);
    size_t peak = watch_memory(time / 2);
    if (stop > 0ms) stop_the_daemon(stop);
    const bool admin_answers = ask_admin();
    peak = std::max(peak, watch_memory(time / 2));
    shared().over = true;
    const bool all_ended = honest.wait(30s);
    const bool all_attacked = attackers.end();

    print(attack, peak);
    bool passed = check(all_ended, "the honest clients end");
    passed &= check(admin_answers, "the admin socket answers");
    passed &= check(all_attacked, "the attackers attack until the end");
    for (size_t i = 0; i < attack.attackers.size(); ++i) {
      passed &= check(shared().done[i] > 0, "attacker " + std::to_string(i) + " does what it is for");
    }
    for (const Waits& waits : shared().waits) passed &= check_waits(waits, stop > 0ms);
    return passed & check(sanitized || peak < memory_limit + 2 * setting_.image_bytes, "memory is bounded");
  }

  void print(const Attack& attack, size_t peak) const {
    std::printf("  %-22s", attack.name.c_str());
    constexpr const char* names[] = {"kept", "anew", "heard"};
    for (size_t i = 0; i < std::size(names); ++i) {
      const Waits& waits = shared().waits[i];
      if (waits.count == 0) continue;
      std::vector<uint32_t> times(waits.times.begin(), waits.times.begin() + waits.count);
      std::sort(times.begin(), times.end());
      const auto at = [&](double part) { return times[size_t(part * double(times.size() - 1))] / 1000.0; };
      std::printf(" %s %zu: %.1f %.1f %.1f ms;", names[i], times.size(), at(0.5), at(0.99), at(1));
    }
    std::printf(" peak %zu MiB; done", peak / mebibyte);
    for (size_t i = 0; i < attack.attackers.size(); ++i) std::printf(" %zu", shared().done[i].load());
    std::printf("\n");
  }

  bool check_waits(const Waits& waits, bool was_stopped) const {
    if (!check(waits.failure[0] == '\0', std::string("every question is answered: ") + waits.failure.data())) {
      return false;
    }
    const uint32_t worst = *std::max_element(waits.times.begin(), waits.times.end());
    return was_stopped || sanitized ||
           check(std::chrono::microseconds(worst) < setting_.wait_limit(), "no wait is long");
  }

  // The highest of the time.
  size_t watch_memory(milliseconds time) const {
    size_t peak = 0;
    for (const auto end = steady_clock::now() + time; steady_clock::now() < end;) {
      peak = std::max(peak, memory());
      std::this_thread::sleep_for(20ms);
    }
    return peak;
  }

  // What is the daemon's alone, and the kernel's part.
  size_t memory() const {
    const std::string rollup = "/proc/" + std::to_string(daemon_->pid()) + "/smaps_rollup";
    const size_t resident =
        testing::number_in(rollup, "Private_Clean:") + testing::number_in(rollup, "Private_Dirty:");
    return resident * 1024 + group_->kernel_bytes();
  }

  void stop_the_daemon(milliseconds time) const {
    kill(daemon_->pid(), SIGSTOP);
    std::this_thread::sleep_for(time);
    kill(daemon_->pid(), SIGCONT);
  }

  bool store_images() const {
    client::Connection admin(wire::admin_service, device_.at(""));
    const auto images = plist::Data::create(std::string(setting_.image_bytes, 'i'));
    return client::store_regulatory_images(admin, images).outcome == client::Outcome::answered;
  }

  bool ask_admin() const {
    client::Connection admin(wire::admin_service, device_.at(""));
    return admin.ask(*wire::make_request("r")).outcome == client::Outcome::answered;
  }

  // With all places taken, a backlog, and no descriptor to accept another connection with.
  double processor_share_at_the_limit() const {
    const size_t places = wire::connection_limits(setting_.descriptors).public_connections;
    testing::Crowd crowd(device_.socket(wire::public_service), places);
    const auto connect = [](testing::HostileConnection& connection) { return !connection.has_ended(); };
    within(5s, [&] { return crowd.each(connect), daemon_->descriptors() >= places; });
    rlimit before;
    prlimit(daemon_->pid(), RLIMIT_NOFILE, nullptr, &before);
    const rlimit none{1, before.rlim_max};
    prlimit(daemon_->pid(), RLIMIT_NOFILE, &none, nullptr);
    testing::Crowd waiting(device_.socket(wire::public_service), 200);
    waiting.each(connect);
    std::this_thread::sleep_for(100ms);
    const double used = processor_time(daemon_->pid());
    std::this_thread::sleep_for(2s);
    const double share = (processor_time(daemon_->pid()) - used) / 2;
    prlimit(daemon_->pid(), RLIMIT_NOFILE, &before, nullptr);
    return share;
  }

  bool check_log() const {
    const std::string path = device_.at("/var/mobile/Library/Logs/corvaned/corvaned");
    const std::string log = testing::read_file(path + ".log") + testing::read_file(path + ".1.log");
    const auto is_control = [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0 && c != '\n'; };
    const bool is_bounded = check(!log.empty() && log.size() <= log_limit, "the log stays within its bounds");
    const bool is_clean = std::none_of(log.begin(), log.end(), is_control);
    return check(is_clean, "the log has no control characters") && is_bounded;
  }

  // How long the daemon takes to end; at the most where it ends badly.
  milliseconds end_under_attack() {
    Children attackers;
    start(attackers, testing::passed_descriptors);
    std::this_thread::sleep_for(300ms);
    const auto start = steady_clock::now();
    const bool is_well = daemon_->end(SIGTERM) == 0;
    if (!is_well) std::fputs(daemon_->standard_error().c_str(), stderr);
    return is_well ? std::chrono::duration_cast<milliseconds>(steady_clock::now() - start) : milliseconds::max();
  }

  const Setting setting_;
  const milliseconds attack_time_;
  const testing::SimulatedRoot device_{"phone.plist"};
  std::optional<testing::MemoryGroup> group_;  // goes after the daemon in it
  std::optional<testing::DaemonProcess> daemon_;
};

int run(const Form& form, const std::vector<Attack>& attacks) {
  rlimit descriptors;
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);
  std::printf("honest waits: how many, p50, p99, worst\n");
  bool passed = true;
  for (Setting setting : form.settings) {
    if (setting.by_other_user && geteuid() != 0) {
      std::printf("skipped, because only root can attack as another user\n");
      continue;
    }
    passed &= Trial(setting, form.attack_time).run(attacks, form.stops_the_daemon);
  }
  std::printf(passed ? "nobody took the service from anybody\n" : "FAILED\n");
  return passed ? 0 : 1;
}

}  // namespace

}  // namespace corvane

int main(int argc, char** argv) {
  const std::string_view form = argc > 1 ? argv[1] : "--short";
  const std::string_view wanted = argc > 2 ? argv[2] : "";
  std::vector<corvane::Attack> attacks = corvane::testing::all_attacks();
  std::erase_if(attacks, [&](const auto& each) { return each.name.find(wanted) == std::string::npos; });
  if (form == "--long" && !attacks.empty()) return corvane::run(corvane::long_form, attacks);
  if (form == "--short" && !attacks.empty()) return corvane::run(corvane::short_form, attacks);
  std::fprintf(stderr, "usage: hostile_load [--short|--long [ATTACK]]\n");
  return 2;
}
