// One thread for each service polls its connection and a descriptor that wakes it up. All state of the service
// belongs to the thread; the test's changes are tasks for it, so that a change is complete before the next call is
// answered.

#include "fuzz/scripted_service.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/test_platform.h"

namespace corvane::testing {

namespace {

using std::chrono::steady_clock;

// A test without its bus or its service shows nothing.
void require(int result, const char* what) {
  if (result >= 0) return;
  std::fprintf(stderr, "scripted service: %s: error %d\n", what, -result);
  std::abort();
}

sd_bus* connect_to(const std::string& address) {
  sd_bus* bus = nullptr;
  require(sd_bus_new(&bus), "sd_bus_new");
  require(sd_bus_set_address(bus, address.c_str()), "sd_bus_set_address");
  require(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
  require(sd_bus_start(bus), "sd_bus_start");
  return bus;
}

bool answers(const std::string& address) {
  sd_bus* bus = nullptr;
  const bool answers = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
                       sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
                       sd_bus_get_bus_id(bus, nullptr) != -ENOTCONN;
  sd_bus_close_unref(bus);
  return answers;
}

void append(sd_bus_message* message, const PropertyValue& value) {
  struct Append {
    void operator()(bool flag) const { require(sd_bus_message_append(to, "v", "b", int{flag}), "b"); }
    void operator()(int32_t number) const { require(sd_bus_message_append(to, "v", "i", number), "i"); }
    void operator()(uint32_t number) const { require(sd_bus_message_append(to, "v", "u", number), "u"); }
    void operator()(double number) const { require(sd_bus_message_append(to, "v", "d", number), "d"); }
    void operator()(const std::string& text) const {
      require(sd_bus_message_append(to, "v", "s", text.c_str()), "s");
    }
    void operator()(const ObjectPath& object) const {
      require(sd_bus_message_append(to, "v", "o", object.path.c_str()), "o");
    }
    void operator()(const ByteString& data) const {
      require(sd_bus_message_open_container(to, 'v', "ay"), "ay");
      require(sd_bus_message_append_array(to, 'y', data.bytes.data(), data.bytes.size()), "ay");
      require(sd_bus_message_close_container(to), "ay");
    }
    void operator()(const std::vector<std::string>& list) const {
      require(sd_bus_message_open_container(to, 'v', "as"), "as");
      require(sd_bus_message_open_container(to, 'a', "s"), "as");
      for (const std::string& text : list) require(sd_bus_message_append(to, "s", text.c_str()), "as");
      require(sd_bus_message_close_container(to), "as");
      require(sd_bus_message_close_container(to), "as");
    }
    sd_bus_message* to;
  };
  std::visit(Append{message}, value);
}

void append(sd_bus_message* message, const Properties& properties) {
  require(sd_bus_message_open_container(message, 'a', "{sv}"), "a{sv}");
  for (const auto& [name, value] : properties) {
    require(sd_bus_message_open_container(message, 'e', "sv"), "{sv}");
    require(sd_bus_message_append(message, "s", name.c_str()), "{sv}");
    append(message, value);
    require(sd_bus_message_close_container(message), "{sv}");
  }
  require(sd_bus_message_close_container(message), "a{sv}");
}

void append(sd_bus_message* message, const Interfaces& interfaces) {
  require(sd_bus_message_open_container(message, 'a', "{sa{sv}}"), "a{sa{sv}}");
  for (const auto& [interface, properties] : interfaces) {
    require(sd_bus_message_open_container(message, 'e', "sa{sv}"), "{sa{sv}}");
    require(sd_bus_message_append(message, "s", interface.c_str()), "{sa{sv}}");
    append(message, properties);
    require(sd_bus_message_close_container(message), "{sa{sv}}");
  }
  require(sd_bus_message_close_container(message), "a{sa{sv}}");
}

bool has_modem(const Interfaces& interfaces) {
  return interfaces.count(scripted::modem_interface) + interfaces.count(scripted::ofono_modem_interface) != 0;
}

}  // namespace

// ---- the bus ------------------------------------------------------------------------------------------

PrivateBus::PrivateBus() : folder_(make_temporary_folder()) {
  write_file(folder_ + "/bus.conf",
             "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
             "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
             "<busconfig><type>session</type><listen>" +
                 address() +
                 "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\"/>"
                 "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n");
  start();
}

PrivateBus::~PrivateBus() {
  stop();
  std::filesystem::remove_all(folder_);
}

void PrivateBus::start() {
  const std::string configuration = "--config-file=" + folder_ + "/bus.conf";
  pid_ = fork();
  require(pid_ < 0 ? -errno : 0, "fork");
  if (pid_ == 0) {
    // It must not outlive a test that fails, nor keep its output open.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execlp("dbus-daemon", "dbus-daemon", "--nofork", configuration.c_str(), nullptr);
    _exit(127);
  }
  for (int i = 0; i < 1000 && !answers(address()); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  require(answers(address()) ? 0 : -1, "the bus does not answer");
}

void PrivateBus::stop() {
  if (pid_ == 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = 0;
  std::filesystem::remove(folder_ + "/socket");
}

// ---- the thread ---------------------------------------------------------------------------------------

ScriptedService::ScriptedService(const std::string& address)
    : bus_(connect_to(address)), wake_up_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  const auto on_message = [](sd_bus_message* message, void* self, sd_bus_error*) {
    return static_cast<ScriptedService*>(self)->handle(message);
  };
  require(sd_bus_add_filter(bus_.get(), nullptr, on_message, this), "sd_bus_add_filter");
  thread_ = std::thread([this] { run(); });
}

ScriptedService::~ScriptedService() {
  on_thread([this] { has_ended_ = true; });
  thread_.join();
  close(wake_up_);
}

void ScriptedService::on_thread(const std::function<void()>& work) {
  std::unique_lock lock(mutex_);
  tasks_.push_back(&work);
  const uint64_t own = ++given_;
  eventfd_write(wake_up_, 1);
  done_.wait(lock, [&] { return done_count_ >= own; });
}

void ScriptedService::run() {
  while (!has_ended_) {
    while (sd_bus_process(bus_.get(), nullptr) > 0) {
    }
    send_due_replies();
    sd_bus_flush(bus_.get());
    // A bus that was killed leaves a descriptor that is always ready.
    const int bus = sd_bus_is_open(bus_.get()) > 0 ? sd_bus_get_fd(bus_.get()) : -1;
    pollfd waits[] = {{bus, POLLIN, 0}, {wake_up_, POLLIN, 0}};
    poll(waits, 2, milliseconds_to_next_reply());
    eventfd_t count = 0;
    eventfd_read(wake_up_, &count);
    const std::lock_guard lock(mutex_);
    for (; !tasks_.empty(); tasks_.pop_front()) {
      (*tasks_.front())();
      ++done_count_;
    }
    sd_bus_flush(bus_.get());
    done_.notify_all();
  }
}

int ScriptedService::milliseconds_to_next_reply() {
  if (late_.empty()) return -1;
  const auto time = std::chrono::ceil<std::chrono::milliseconds>(late_.begin()->first - steady_clock::now());
  return std::max(0, static_cast<int>(time.count()));
}

void ScriptedService::send_due_replies() {
  while (!late_.empty() && late_.begin()->first <= steady_clock::now()) {
    sd_bus_send(bus_.get(), late_.begin()->second.get(), nullptr);
    late_.erase(late_.begin());
  }
}

// ---- answers ------------------------------------------------------------------------------------------

int ScriptedService::handle(sd_bus_message* call) {
  if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) return 0;
  const std::string method = sd_bus_message_get_member(call);
  ++calls_;
  caller_ = sd_bus_message_get_sender(call);
  Reply how;
  if (auto& next = replies_[method]; !next.empty()) {
    how = next.front();
    next.pop_front();
  }
  if (how.kind == Reply::Kind::never) return 1;
  late_.emplace(steady_clock::now() + how.delay, build_reply(call, method, how.kind));
  return 1;
}

ScriptedService::Message ScriptedService::build_reply(sd_bus_message* call, const std::string& method,
                                                      Reply::Kind kind) {
  sd_bus_message* reply = nullptr;
  if (kind == Reply::Kind::error) {
    require(sd_bus_message_new_method_errorf(call, &reply, "org.example.Error.Failed", "as asked for"), "error");
    return Message(reply);
  }
  require(sd_bus_message_new_method_return(call, &reply), "reply");
  if (kind == Reply::Kind::malformed) {
    require(sd_bus_message_append(reply, "as", 2, "neither objects", "nor properties"), "reply");
  } else {
    append_answer(reply, call, method);
  }
  return Message(reply);
}

void ScriptedService::append_answer(sd_bus_message* reply, sd_bus_message* call, const std::string& method) {
  if (method == "GetManagedObjects") {
    require(sd_bus_message_open_container(reply, 'a', "{oa{sa{sv}}}"), "objects");
    for (const auto& [object, interfaces] : objects_) {
      if (!has_modem(interfaces)) continue;
      require(sd_bus_message_open_container(reply, 'e', "oa{sa{sv}}"), "object");
      require(sd_bus_message_append(reply, "o", object.c_str()), "object");
      append(reply, interfaces);
      require(sd_bus_message_close_container(reply), "object");
    }
    require(sd_bus_message_close_container(reply), "objects");
  } else if (method == "GetModems") {
    require(sd_bus_message_open_container(reply, 'a', "(oa{sv})"), "modems");
    for (auto& [object, interfaces] : objects_) {
      if (!has_modem(interfaces)) continue;
      require(sd_bus_message_open_container(reply, 'r', "oa{sv}"), "modem");
      require(sd_bus_message_append(reply, "o", object.c_str()), "modem");
      append(reply, interfaces[scripted::ofono_modem_interface]);
      require(sd_bus_message_close_container(reply), "modem");
    }
    require(sd_bus_message_close_container(reply), "modems");
  } else {
    const char* interface = sd_bus_message_get_interface(call);
    if (method == "GetAll") sd_bus_message_read(call, "s", &interface);
    append(reply, objects_[sd_bus_message_get_path(call)][interface]);
  }
}

void ScriptedService::own(const std::string& name) {
  on_thread([&] {
    constexpr uint64_t flags = SD_BUS_NAME_REPLACE_EXISTING | SD_BUS_NAME_ALLOW_REPLACEMENT;
    require(sd_bus_request_name(bus_.get(), name.c_str(), flags), name.c_str());
  });
}

void ScriptedService::change(const std::function<void(Objects& objects)>& change) {
  on_thread([&] { change(objects_); });
}

void ScriptedService::reply_to(const std::string& method, Reply reply, int count) {
  on_thread([&] { replies_[method].insert(replies_[method].end(), static_cast<size_t>(count), reply); });
}

void ScriptedService::reply_normally() {
  on_thread([&] { replies_.clear(); });
}

int ScriptedService::calls() {
  int calls = 0;
  on_thread([&] { calls = calls_; });
  return calls;
}

std::string ScriptedService::caller() {
  std::string caller;
  on_thread([&] { caller = caller_; });
  return caller;
}

// ---- signals ------------------------------------------------------------------------------------------

void ScriptedService::emit(const std::string& object, const char* interface, const char* member,
                           const std::function<void(sd_bus_message* signal)>& append_content) {
  on_thread([&] {
    sd_bus_message* signal = nullptr;
    // Without a bus there is nobody to hear it.
    if (sd_bus_message_new_signal(bus_.get(), &signal, object.c_str(), interface, member) < 0) return;
    const Message owned(signal);
    if (!only_to_.empty()) require(sd_bus_message_set_destination(signal, only_to_.c_str()), member);
    append_content(signal);
    sd_bus_send(bus_.get(), signal, nullptr);
  });
}

void ScriptedService::interfaces_added(const std::string& object) {
  emit("/org/freedesktop/ModemManager1", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
       [&](sd_bus_message* signal) {
         require(sd_bus_message_append(signal, "o", object.c_str()), "InterfacesAdded");
         append(signal, objects_[object]);
       });
}

void ScriptedService::interfaces_removed(const std::string& object) {
  emit("/org/freedesktop/ModemManager1", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
       [&](sd_bus_message* signal) {
         require(sd_bus_message_append(signal, "oas", object.c_str(), 1, scripted::modem_interface), "removed");
       });
}

void ScriptedService::properties_changed(const std::string& object, const std::string& interface,
                                         const std::string& property) {
  emit(object, "org.freedesktop.DBus.Properties", "PropertiesChanged", [&](sd_bus_message* signal) {
    require(sd_bus_message_append(signal, "s", interface.c_str()), "PropertiesChanged");
    append(signal, Properties{{property, objects_[object][interface][property]}});
    require(sd_bus_message_append(signal, "as", 0), "PropertiesChanged");
  });
}

void ScriptedService::modem_added(const std::string& object) {
  emit("/", "org.ofono.Manager", "ModemAdded", [&](sd_bus_message* signal) {
    require(sd_bus_message_append(signal, "o", object.c_str()), "ModemAdded");
    append(signal, objects_[object][scripted::ofono_modem_interface]);
  });
}

void ScriptedService::modem_removed(const std::string& object) {
  emit("/", "org.ofono.Manager", "ModemRemoved", [&](sd_bus_message* signal) {
    require(sd_bus_message_append(signal, "o", object.c_str()), "ModemRemoved");
  });
}

void ScriptedService::property_changed(const std::string& object, const std::string& interface,
                                       const std::string& property) {
  emit(object, interface.c_str(), "PropertyChanged", [&](sd_bus_message* signal) {
    require(sd_bus_message_append(signal, "s", property.c_str()), "PropertyChanged");
    append(signal, objects_[object][interface][property]);
  });
}

void ScriptedService::name_owner_changed(const std::string& name) {
  emit("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged", [&](sd_bus_message* signal) {
    require(sd_bus_message_append(signal, "sss", name.c_str(), "", ""), "NameOwnerChanged");
  });
}

void ScriptedService::send_only_to(const std::string& victim) {
  on_thread([&] { only_to_ = victim; });
}

// ---- modems and cards ---------------------------------------------------------------------------------

namespace scripted {

void put_modem(Objects& objects, int number, const ScriptedCard* card) {
  Properties& modem = objects[modem_path(number)][modem_interface];
  modem = {{"Device", std::string("/sys/devices/usb1")},
           {"PrimaryPort", std::string("ttyUSB2")},
           {"Revision", std::string("R1")},
           {"State", int32_t{-1}},
           {"StateFailedReason", uint32_t{2}},
           {"UnlockRequired", uint32_t{0}},
           {"Sim", ObjectPath{"/"}}};
  if (card == nullptr) return;
  modem["Sim"] = ObjectPath{sim_path(number)};
  modem["State"] = int32_t{card->is_locked ? 2 : 8};
  modem["StateFailedReason"] = uint32_t{0};
  modem["UnlockRequired"] = uint32_t{card->is_locked ? 2u : 1u};
  modem["OwnNumbers"] = card->number.empty() || card->is_locked ? std::vector<std::string>{}
                                                                : std::vector<std::string>{card->number};
  objects[sim_path(number)][sim_interface] = {{"SimIdentifier", card->identity},
                                              {"Imsi", card->is_locked ? std::string() : card->subscriber},
                                              {"Gid1", ByteString{card->is_locked ? "" : "\x2a"}},
                                              {"Gid2", ByteString{""}}};
}

void put_ofono_modem(Objects& objects, int number, const ScriptedCard* card) {
  Interfaces& modem = objects["/ofono" + std::to_string(number)];
  modem[ofono_modem_interface] = {{"Powered", true},
                                  {"Interfaces", std::vector<std::string>{ofono_sim_interface}},
                                  {"Revision", std::string("R2")}};
  Properties& sim = modem[ofono_sim_interface] = {{"Present", card != nullptr}};
  if (card == nullptr) return;
  sim["PinRequired"] = std::string(card->is_locked ? "pin" : "none");
  sim["CardIdentifier"] = card->identity;
  if (card->is_locked) return;
  sim["SubscriberIdentity"] = card->subscriber;
  if (!card->number.empty()) sim["SubscriberNumbers"] = std::vector<std::string>{card->number};
}

}  // namespace scripted

}  // namespace corvane::testing
