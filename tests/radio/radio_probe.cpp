#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

#include "platform/linux/linux_device.h"
#include "platform/process/event_loops.h"
#include "plist/describe.h"

/// Runs the telephony service of a Linux device alone. Each notification that it delivers, and each change of its
/// answers, which are looked at every 10 ms, is one line of output with all answers as of then:
///
///     {"Event": "Look", "Group1": <2 bytes: a101>, ..., "Status": "ready", "Subscriber": "310150000000001"}
///
/// What the service does not know, or does not tell while there is no connection to it, is left out.
namespace corvane {
namespace {

using Query = TelvoServerConnection::Query;

std::string describe_answers(Telephony& telephony, std::string_view event) {
  const auto answers = plist::MutableDictionary::create();
  const auto add = [&](std::string_view name, const plist::Ref<plist::Value>& value) {
    if (value) answers->set(name, value);
  };
  add("Event", plist::String::create(event));
  add("Status", telephony.sim_status());
  add("Number", telephony.copy_my_phone_number());
  if (const auto connection = telephony.connect([] {})) {
    const auto ask = [&](std::string_view name, Query query) {
      plist::Ref<plist::Value> value;
      if (!connection->copy(query, value).failed()) add(name, value);
    };
    ask("Identity", Query::sim_identity);
    ask("Subscriber", Query::mobile_subscriber_identity);
    ask("Group1", Query::group_identifier_1);
    ask("Group2", Query::group_identifier_2);
  }
  return plist::describe(answers.get());
}

void print_notification(TelephonyCentre*, void* telephony, const plist::String* name, const plist::Value*,
                        const plist::Dictionary*) {
  std::puts(describe_answers(*static_cast<Telephony*>(telephony), name->view()).c_str());
}

void look_every_10_ms(Telephony& telephony, RunLoop& loop) {
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const itimerspec often{{0, 10'000'000}, {0, 10'000'000}};
  timerfd_settime(timer, 0, &often, nullptr);
  loop.watch(timer, [&telephony, timer, last = std::string()]() mutable {
    uint64_t expirations;
    if (read(timer, &expirations, sizeof expirations) < 0) return;
    const std::string look = describe_answers(telephony, "Look");
    if (look != std::exchange(last, look)) std::puts(look.c_str());
  });
}

}  // namespace
}  // namespace corvane

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  corvane::MainLoop loop;
  corvane::LinuxDevice device("/nonexistent");
  corvane::Telephony& telephony = device.telephony();
  telephony.default_centre()->set_default_run_loop(loop);
  for (const auto name :
       {corvane::telvo_sim_inserted, corvane::telvo_sim_status_changed, corvane::telvo_phone_number_changed}) {
    telephony.default_centre()->add_observer(&telephony, corvane::print_notification, name);
  }
  corvane::look_every_10_ms(telephony, loop);
  loop.run();
}
