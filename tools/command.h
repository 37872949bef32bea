#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "client/client.h"
#include "plist/value.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// What the commands of corvanectl share: how they end, ask the daemon, and print.
namespace corvane::tools {

enum ExitStatus {
  done = 0,
  failed = 1,         ///< the daemon answered an error or nothing in time, or the output could not be written
  wrong_usage = 2,    ///< wrong arguments, or a file that cannot be used
  no_daemon = 3,      ///< nobody serves the socket
  not_permitted = 4,  ///< this user may not use the socket
  nothing_there = 5,  ///< what was asked for does not exist
};

/// Thrown to end the command with one line on standard error.
struct Failure {
  ExitStatus status;
  std::string text;
};

/// Throws the Failure of a call that did not end well.
void check(client::Outcome outcome, const std::string& detail);
/// A call of one of the daemon's methods.
using Call = std::function<client::Answer()>;

/// The dictionary that the daemon answered, null where it answered none. Calls again, for up to two seconds, where
/// the daemon closed the connection unanswered: that is what it does with more admin connections than it takes.
/// Throws Failure, also for an error that the daemon answered.
plist::Ref<plist::Dictionary> reply_of(const Call& call);
/// The same for a call that changes something: where no answer came in time, the Failure says that the daemon may
/// still do it.
plist::Ref<plist::Dictionary> reply_of_change(const Call& call);
/// As `reply_of`, where no dictionary is the Failure `nothing_there` with this text.
plist::Ref<plist::Dictionary> reply_or(const Call& call, const std::string& text);

/// An entry of an answer that must be there. Throws Failure where it is missing or of another kind.
template <class T>
const T& entry(const plist::Dictionary& reply, std::string_view key) {
  const T* value = plist::cast<T>(reply.get(key));
  if (value == nullptr) throw Failure{failed, "the daemon's answer has no " + std::string(key)};
  return *value;
}

struct Format {
  bool json = false;
  bool xml = false;
};

/// A value in that format, with a line feed at its end.
std::string formatted(const plist::Value& value, const Format& format);

/// Write to standard output. Throw Failure.
void print(std::string_view text);
/// Refuses a terminal, which binary data would confuse.
void print_binary(std::string_view bytes);
/// Writes a file as a whole (see `replace_file`). Throws Failure.
void write_output(const std::string& path, std::string_view bytes, mode_t mode);

/// Adds `--json`.
void add_json(CLI::App& command, bool& json);
/// Adds `--json` and `--xml`.
void add_format(CLI::App& command, Format& format);
/// Adds an argument or option that must not be empty.
CLI::Option* add_text(CLI::App& command, const char* name, std::string& text, const char* help);
/// Refuses text that is not UTF-8, which a property list cannot hold: two such keys could become the same one.
/// Returns the option.
CLI::Option* must_be_utf8(CLI::Option* option);

}  // namespace corvane::tools
