#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <optional>

#include "plist/base64_text.h"
#include "plist/describe.h"
#include "plist/reader.h"
#include "plist/writer.h"
#include "plist/xml_leaf.h"

namespace corvane::plist {

namespace {

constexpr std::string_view header =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist SYSTEM \"plist.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr size_t bytes_per_line = 51;  // 68 characters of Base64

class XmlWriter {
 public:
  explicit XmlWriter(std::string& out) : out_(out) {}

  Ref<String> write(const Value& value);

 private:
  void write_value(const Value& value, unsigned depth);
  void write_container(const Value& value, unsigned depth);
  void write_entries(const Dictionary& dictionary, unsigned depth);
  void write_items(std::span<const Ref<Value>> items, unsigned depth);
  void write_data(std::string_view bytes, unsigned depth);
  void write_number(const Number& number);
  void write_real(double real);
  void write_date(const Date& date);
  void write_escaped(std::string_view text);

  void element(std::string_view name, std::string_view content) {
    open(name);
    out_ += content;
    close(name);
  }
  void open(std::string_view name) { ((out_ += '<') += name) += '>'; }
  void close(std::string_view name) { ((out_ += "</") += name) += ">\n"; }
  void indent(unsigned depth) { out_.append(depth - 1, '\t'); }
  void fail(std::string text) {
    if (!error_) error_ = String::create(text);
  }

  std::string& out_;
  Ref<String> error_;
};

Ref<String> XmlWriter::write(const Value& value) {
  out_ += header;
  write_value(value, 1);
  out_ += "</plist>\n";
  return std::move(error_);
}

void XmlWriter::write_value(const Value& value, unsigned depth) {
  indent(depth);
  switch (value.kind()) {
    case Kind::string:
      open("string");
      write_escaped(cast<String>(&value)->view());
      return close("string");
    case Kind::data:
      return write_data(cast<Data>(&value)->bytes(), depth);
    case Kind::date:
      return write_date(*cast<Date>(&value));
    case Kind::number:
      return write_number(*cast<Number>(&value));
    case Kind::boolean:
      out_ += cast<Boolean>(&value)->value() ? "<true/>\n" : "<false/>\n";
      return;
    default:
      return write_container(value, depth);
  }
}

// ---- containers ---------------------------------------------------------------------------------------

void XmlWriter::write_container(const Value& value, unsigned depth) {
  if (depth > max_depth) return fail("nesting deeper than " + std::to_string(max_depth));
  const auto* dictionary = cast<Dictionary>(&value);
  const auto* array = cast<Array>(&value);
  const std::string_view name = dictionary != nullptr ? "dict" : array != nullptr ? "array" : "set";
  const std::span<const Ref<Value>> items = array != nullptr        ? array->items()
                                            : dictionary != nullptr ? std::span<const Ref<Value>>()
                                                                    : cast<Set>(&value)->items();
  if (items.empty() && (dictionary == nullptr || dictionary->size() == 0)) {
    ((out_ += '<') += name) += "/>\n";
    return;
  }
  open(name);
  out_ += '\n';
  if (dictionary != nullptr) write_entries(*dictionary, depth + 1);
  write_items(items, depth + 1);
  indent(depth);
  close(name);
}

void XmlWriter::write_entries(const Dictionary& dictionary, unsigned depth) {
  std::vector<const Dictionary::Entry*> sorted;
  sorted.reserve(dictionary.size());
  for (const Dictionary::Entry& entry : dictionary.entries()) sorted.push_back(&entry);
  std::sort(sorted.begin(), sorted.end(),
            [](const auto* a, const auto* b) { return a->key->view() < b->key->view(); });
  for (const Dictionary::Entry* entry : sorted) {
    indent(depth);
    open("key");
    write_escaped(entry->key->view());
    close("key");
    write_value(*entry->value, depth);
    if (error_) return;
  }
}

void XmlWriter::write_items(std::span<const Ref<Value>> items, unsigned depth) {
  for (const Ref<Value>& item : items) {
    write_value(*item, depth);
    if (error_) return;
  }
}

// ---- leaves -------------------------------------------------------------------------------------------

void XmlWriter::write_data(std::string_view bytes, unsigned depth) {
  out_ += "<data>\n";
  for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes_per_line, bytes.size()))) {
    indent(depth);
    append_base64(out_, bytes.substr(0, bytes_per_line));
    out_ += '\n';
  }
  indent(depth);
  close("data");
}

void XmlWriter::write_number(const Number& number) {
  if (!number.is_integer()) return write_real(number.real());
  const bool is_wide = number.type() == Number::Type::uint64;
  element("integer", is_wide ? std::to_string(number.uint64()) : std::to_string(number.int64()));
}

void XmlWriter::write_real(double real) {
  if (std::isnan(real)) return element("real", "nan");
  if (std::isinf(real)) return element("real", real < 0 ? "-infinity" : "+infinity");
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, real).ptr;
  element("real", {text, static_cast<size_t>(end - text)});
}

bool reads_back(const std::string& text, double seconds) {
  const std::optional<double> read = parse_date(text);
  return read && std::bit_cast<uint64_t>(*read) == std::bit_cast<uint64_t>(seconds);
}

// The shortest text that reads back as exactly this date, or nothing.
std::optional<std::string> exact_date_text(const Date& date) {
  std::string text = date_text(date);
  if (text.empty() || reads_back(text, date.seconds())) return text;
  text.pop_back();
  const double fraction = date.seconds() - std::floor(date.seconds());
  // Near the epoch fractions are so fine that only all their digits tell them apart.
  for (int precision = 1; precision <= 18; ++precision) {
    char digits[512];
    const auto end =
        precision < 18
            ? std::to_chars(digits, digits + sizeof digits, fraction, std::chars_format::fixed, precision)
            : std::to_chars(digits, digits + sizeof digits, fraction, std::chars_format::fixed);
    std::string candidate = text + std::string(digits + 1, end.ptr) + 'Z';
    if (digits[0] == '0' && reads_back(candidate, date.seconds())) return candidate;
  }
  return std::nullopt;
}

void XmlWriter::write_date(const Date& date) {
  const std::optional<std::string> text = exact_date_text(date);
  if (!text) return fail("a date that text cannot hold exactly");
  if (text->empty()) return fail("a date outside of the years 1 to 9999");
  element("date", *text);
}

void XmlWriter::write_escaped(std::string_view text) {
  size_t done = 0;
  const auto replace = [&](size_t at, std::string_view replacement) {
    (out_ += text.substr(done, at - done)) += replacement;
    done = at + 1;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<uint8_t>(text[i]);
    if (byte == '&') {
      replace(i, "&amp;");
    } else if (byte == '<') {
      replace(i, "&lt;");
    } else if (byte == '>') {
      replace(i, "&gt;");
    } else if (byte == '\r') {
      replace(i, "&#13;");
    } else if (byte < 0x20 && byte != '\t' && byte != '\n') {
      return fail("a control character, which XML cannot hold");
    } else if (byte == 0xEF && text.substr(i, 3) >= "\xEF\xBF\xBE") {
      return fail("U+FFFE or U+FFFF, which XML cannot hold");
    }
  }
  out_ += text.substr(done);
}

}  // namespace

Ref<String> encode_xml(const Value& value, std::string& out) { return XmlWriter(out).write(value); }

}  // namespace corvane::plist
