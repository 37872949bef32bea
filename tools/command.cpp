#include "tools/command.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <unistd.h>

#include "plist/unicode.h"
#include "plist/writer.h"
#include "tools/files.h"
#include "tools/json.h"
#include "tools/print.h"

namespace corvane::tools {

using client::Outcome;
using plist::Ref;

namespace {

constexpr int most_tries = 40;
constexpr std::chrono::milliseconds pause{50};

std::string no_answer() {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(client::default_timeout);
  return "no answer within " + std::to_string(seconds.count()) + " s";
}

// The last answer of several tries.
client::Answer answer_of(const Call& call) {
  client::Answer answer = call();
  for (int tries = 1; answer.outcome == Outcome::closed && tries < most_tries; ++tries) {
    std::this_thread::sleep_for(pause);
    answer = call();
  }
  return answer;
}

}  // namespace

void check(Outcome outcome, const std::string& detail) {
  switch (outcome) {
    case Outcome::answered:
      return;
    case Outcome::refused:
      throw Failure{no_daemon, "no daemon: " + detail};
    case Outcome::not_permitted:
      throw Failure{not_permitted, "not permitted: " + detail};
    case Outcome::timed_out:
      throw Failure{failed, no_answer()};
    default:
      throw Failure{failed, detail};
  }
}

namespace {

Ref<plist::Dictionary> reply_in(const client::Answer& answer) {
  check(answer.outcome, answer.detail);
  const wire::Response& response = answer.response;
  if (!response.failed) return response.reply;
  throw Failure{failed,
                "the daemon answered error " + std::to_string(response.code) + ": " + response.description};
}

}  // namespace

Ref<plist::Dictionary> reply_of(const Call& call) { return reply_in(answer_of(call)); }

Ref<plist::Dictionary> reply_of_change(const Call& call) {
  const client::Answer answer = answer_of(call);
  if (answer.outcome == Outcome::timed_out) throw Failure{failed, no_answer() + "; it may still be done"};
  return reply_in(answer);
}

Ref<plist::Dictionary> reply_or(const Call& call, const std::string& text) {
  Ref<plist::Dictionary> reply = reply_of(call);
  if (!reply) throw Failure{nothing_there, text};
  return reply;
}

std::string formatted(const plist::Value& value, const Format& format) {
  if (format.json) return to_json(value) + "\n";
  if (!format.xml) return to_text(value) + "\n";
  std::string text;
  if (const Ref<plist::String> fault = plist::encode_xml(value, text)) {
    throw Failure{wrong_usage, "this has no XML form: " + std::string(fault->view())};
  }
  return text;
}

void print(std::string_view text) {
  if (!write_all(STDOUT_FILENO, text)) {
    throw Failure{failed, std::string("standard output: ") + std::strerror(errno)};
  }
}

void print_binary(std::string_view bytes) {
  if (isatty(STDOUT_FILENO) != 0) throw Failure{wrong_usage, "binary data does not go to a terminal"};
  print(bytes);
}

void write_output(const std::string& path, std::string_view bytes, mode_t mode) {
  try {
    replace_file(path, bytes, mode);
  } catch (const FileFault& fault) {
    throw Failure{failed, fault.what()};
  }
}

void add_json(CLI::App& command, bool& json) { command.add_flag("--json", json, "Print JSON"); }

void add_format(CLI::App& command, Format& format) {
  CLI::Option* json = command.add_flag("--json", format.json, "Print JSON");
  command.add_flag("--xml", format.xml, "Print an XML property list")->excludes(json);
}

CLI::Option* add_text(CLI::App& command, const char* name, std::string& text, const char* help) {
  const CLI::Validator not_empty([](const std::string& given) { return given.empty() ? "must not be empty" : ""; },
                                 "");
  return command.add_option(name, text, help)->check(not_empty);
}

CLI::Option* must_be_utf8(CLI::Option* option) {
  const CLI::Validator is_utf8(
      [](const std::string& given) { return plist::unicode::is_utf8(given) ? "" : "not UTF-8"; }, "");
  return option->check(is_utf8);
}

}  // namespace corvane::tools
