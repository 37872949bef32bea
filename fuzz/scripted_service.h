#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

/// A system bus, and telephony services on it that say whatever a test has them say.
namespace corvane::testing {

/// A dbus-daemon with a socket in a temporary folder. Anyone may own any name and send to anyone.
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Returns when it serves; ends the test where it does not.
  void start();
  void stop();
  std::string address() const { return "unix:path=" + folder_ + "/socket"; }

 private:
  const std::string folder_;
  pid_t pid_ = 0;
};

struct ObjectPath {
  std::string path;
};
struct ByteString {
  std::string bytes;
};
/// What a property is: b, i, u, d, s, o, ay or as.
using PropertyValue =
    std::variant<bool, int32_t, uint32_t, double, std::string, ObjectPath, ByteString, std::vector<std::string>>;
using Properties = std::map<std::string, PropertyValue>;
using Interfaces = std::map<std::string, Properties>;
using Objects = std::map<std::string, Interfaces>;

/// A client of the bus that may own a service's name. It answers, on a thread of its own, what ModemManager and
/// oFono are asked: GetManagedObjects and GetModems list the objects that have a modem, GetAll and GetProperties
/// tell the properties of one interface. No signal is sent but those that the test asks for.
class ScriptedService {
 public:
  static constexpr const char* modem_manager = "org.freedesktop.ModemManager1";
  static constexpr const char* ofono = "org.ofono";

  /// How calls are answered.
  struct Reply {
    enum class Kind { normal, error, never, malformed };
    Kind kind = Kind::normal;
    std::chrono::milliseconds delay{0};  ///< it tells what was so when it was asked
  };

  /// Returns when it is connected.
  explicit ScriptedService(const std::string& address);
  /// The service leaves the bus.
  ~ScriptedService();
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;

  /// Returns when it owns the name. Another service may take it.
  void own(const std::string& name);
  /// Changes what it answers, without a signal.
  void change(const std::function<void(Objects& objects)>& change);
  /// The next `count` calls of the method are answered so.
  void reply_to(const std::string& method, Reply reply, int count = 1);
  /// All calls are answered at once from now on.
  void reply_normally();
  /// How many calls of any method have come, and the unique name of the client that sent the last one.
  int calls();
  std::string caller();

  // Signals, as the services send them. What they tell is taken from the objects.
  void interfaces_added(const std::string& object);
  void interfaces_removed(const std::string& object);
  void properties_changed(const std::string& object, const std::string& interface, const std::string& property);
  void modem_added(const std::string& object);
  void modem_removed(const std::string& object);
  void property_changed(const std::string& object, const std::string& interface, const std::string& property);
  /// As the bus sends it where a name has lost its owner.
  void name_owner_changed(const std::string& name);
  /// From now on all signals go to this client, whatever it listens to.
  void send_only_to(const std::string& victim);

 private:
  struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  };
  using Message = std::unique_ptr<sd_bus_message, BusDeleter>;
  using Time = std::chrono::steady_clock::time_point;

  void run();
  /// Does it on the thread, and returns when it is done.
  void on_thread(const std::function<void()>& work);
  int handle(sd_bus_message* call);
  Message build_reply(sd_bus_message* call, const std::string& method, Reply::Kind kind);
  void append_answer(sd_bus_message* reply, sd_bus_message* call, const std::string& method);
  void emit(const std::string& object, const char* interface, const char* member,
            const std::function<void(sd_bus_message* signal)>& append);
  int milliseconds_to_next_reply();
  void send_due_replies();

  const std::unique_ptr<sd_bus, BusDeleter> bus_;
  const int wake_up_;
  std::mutex mutex_;
  std::deque<const std::function<void()>*> tasks_;
  std::condition_variable done_;
  uint64_t given_ = 0, done_count_ = 0;  ///< tasks

  // On the thread.
  bool has_ended_ = false;
  Objects objects_;
  std::map<std::string, std::deque<Reply>> replies_;
  std::multimap<Time, Message> late_;
  int calls_ = 0;
  std::string caller_, only_to_;
  std::thread thread_;
};

/// A card as ModemManager knows it.
struct ScriptedCard {
  std::string identity, subscriber, number;
  bool is_locked = false;
};

/// What the services tell about modems and cards.
namespace scripted {

inline constexpr const char* modem_interface = "org.freedesktop.ModemManager1.Modem";
inline constexpr const char* sim_interface = "org.freedesktop.ModemManager1.Sim";
inline constexpr const char* ofono_modem_interface = "org.ofono.Modem";
inline constexpr const char* ofono_sim_interface = "org.ofono.SimManager";

inline std::string modem_path(int number) {
  return "/org/freedesktop/ModemManager1/Modem/" + std::to_string(number);
}
inline std::string sim_path(int number) { return "/org/freedesktop/ModemManager1/SIM/" + std::to_string(number); }

/// Puts a modem of ModemManager's into the objects, with the card (null: none) at an object of the same number.
void put_modem(Objects& objects, int number, const ScriptedCard* card);
/// The same for oFono, with the path "/ofono" and the number.
void put_ofono_modem(Objects& objects, int number, const ScriptedCard* card);

}  // namespace scripted

}  // namespace corvane::testing
