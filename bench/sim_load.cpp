// The real daemon while a simulated phone's SIM is changed thousands of times and eight clients ask for images
// without a pause: how long a client waited, and whether the ark ends with the last SIM.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "client/client.h"
#include "platform/common/small_file.h"
#include "plist/describe.h"
#include "tests/support/daemon_process.h"
#include "tools/plist_edit.h"

namespace corvane {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t client_count = 8;

struct Waits {
  std::vector<double> microseconds;
  size_t failed = 0;
};

void ask_until(const std::atomic<bool>& over, const std::string& root, Waits& waits) {
  client::Connection connection(wire::public_service, root);
  while (!over) {
    const auto start = Clock::now();
    const client::Answer answer = client::copy_regulatory_images(connection);
    waits.microseconds.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (answer.outcome != client::Outcome::answered || !answer.response.reply) ++waits.failed;
  }
}

bool ends_with(const std::string& ark, const std::string& identity) {
  return testing::eventually([&] {
    DictionaryFile file(ark);
    const auto contents = file.contents();
    const auto* value =
        contents.dictionary
            ? plist::cast<plist::String>(contents.dictionary->get("-IntegratedCircuitCardIdentity"))
            : nullptr;
    return value != nullptr && value->view() == identity;
  });
}

double at(const std::vector<double>& sorted, double share) {
  return sorted[static_cast<size_t>(share * static_cast<double>(sorted.size() - 1))];
}

int run(int changes) {
  const testing::DeviceRoot device;
  const std::string root = device.at("");
  std::filesystem::copy_file(CORVANE_SOURCE_DIR "/profiles/phone.plist", device.profile(),
                             std::filesystem::copy_options::overwrite_existing);
  testing::DaemonProcess daemon(device);
  client::Connection admin(wire::admin_service, root);
  client::store_regulatory_images(admin, plist::String::create("images"));

  std::atomic<bool> over = false;
  Waits waits[client_count];
  std::vector<std::thread> clients;
  for (Waits& each : waits) clients.emplace_back([&] { ask_until(over, root, each); });
  const auto start = Clock::now();
  std::string last;
  for (int i = 1; i <= changes; ++i) {
    last = std::to_string(i);
    tools::set_entry(device.profile(), "Telephony.SIMIdentity", plist::String::create(last));
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const bool right = ends_with(root + "/private/var/mobile/Library/cvd/data_ark.plist", last);
  over = true;
  for (std::thread& each : clients) each.join();

  std::vector<double> all;
  size_t failed = 0;
  for (const Waits& each : waits) {
    all.insert(all.end(), each.microseconds.begin(), each.microseconds.end());
    failed += each.failed;
  }
  std::sort(all.begin(), all.end());
  std::printf("%d profile changes in %.1f s, %zu clients, %zu requests, %zu of them not answered with images\n",
              changes, seconds, client_count, all.size(), failed);
  std::printf("a client's wait: p50 %.0f us, p99 %.0f us, longest %.0f us\n", at(all, 0.5), at(all, 0.99),
              all.back());
  std::printf("the ark ended with the last SIM: %s\n", right ? "yes" : "no");
  return right && failed == 0 ? 0 : 1;
}

}  // namespace

}  // namespace corvane

int main(int argc, char** argv) { return corvane::run(argc > 1 ? std::atoi(argv[1]) : 10000); }
