// The real daemon while a simulated phone's SIM is changed thousands of times and eight clients ask for images
// without a pause: how long a client waited. It fails unless every client gets images and the ark has the last SIM
// at the end. Usage: sim_load [ROUNDS [CHANGES]]

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench/measure.h"
#include "client/client.h"
#include "client/methods.h"
#include "platform/process/small_file.h"
#include "plist/describe.h"
#include "tests/support/daemon_process.h"
#include "tools/plist_edit.h"

namespace corvane::bench {

namespace {

constexpr size_t client_count = 8;

struct Waits {
  std::vector<double> microseconds;
  size_t failed = 0;
};

void ask_until(const std::atomic<bool>& over, const std::string& root, Waits& waits) {
  client::Connection connection(wire::public_service, root);
  while (!over) {
    const auto start = steady_clock::now();
    const client::Answer answer = client::copy_regulatory_images(connection);
    waits.microseconds.push_back(nanoseconds_since(start) / 1e3);
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

void round(size_t changes) {
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
  const auto start = steady_clock::now();
  std::string last;
  for (size_t i = 1; i <= changes; ++i) {
    last = std::to_string(i);
    tools::set_entry(device.profile(), "Telephony.SIMIdentity", plist::String::create(last));
  }
  const double seconds = nanoseconds_since(start) / 1e9;
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
  must(right, "the ark did not end with the last SIM");
  must(failed == 0, "a request was not answered with images");
  figure("SIM changes", "daemon", "changes", static_cast<double>(changes));
  figure("SIM changes", "daemon", "changes/s", static_cast<double>(changes) / seconds);
  figure("SIM changes", "daemon", "requests/s", static_cast<double>(all.size()) / seconds);
  figure("SIM changes", "daemon", "us, p50", at(all, 0.5));
  figure("SIM changes", "daemon", "us, p99", at(all, 0.99));
  figure("SIM changes", "daemon", "us, longest", all.back());
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  for (size_t left = count_argument(argc, argv, 1, 1); left > 0; --left)
    round(count_argument(argc, argv, 2, 10000));
}
