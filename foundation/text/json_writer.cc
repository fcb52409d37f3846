#include "foundation/text/json_writer.h"

#include <charconv>
#include <cmath>
#include <stdexcept>

namespace Korvix::Text {

namespace {

constexpr char HEX_DIGITS[] = "0123456789abcdef";

bool continuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// The length of the well-formed UTF-8 sequence at text[i], whose first byte is 0x80 or above;
// 0 if there is none. Overlong forms, surrogates and values beyond U+10FFFF are not well-formed.
size_t utf8_length(std::string_view text, size_t i) {
  const auto at = [&](size_t k) { return static_cast<unsigned char>(text[i + k]); };
  const size_t left = text.size() - i;
  const unsigned char lead = at(0);
  if (lead >= 0xC2 && lead <= 0xDF) return left >= 2 && continuation(at(1)) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (left < 3 || !continuation(at(1)) || !continuation(at(2))) return 0;
    if (lead == 0xE0 && at(1) < 0xA0) return 0;  // overlong
    if (lead == 0xED && at(1) > 0x9F) return 0;  // surrogate
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (left < 4 || !continuation(at(1)) || !continuation(at(2)) || !continuation(at(3))) return 0;
    if (lead == 0xF0 && at(1) < 0x90) return 0;  // overlong
    if (lead == 0xF4 && at(1) > 0x8F) return 0;  // beyond U+10FFFF
    return 4;
  }
  return 0;
}

void append_escape(std::string& out, unsigned char byte) {
  out += "\\u00";
  out += HEX_DIGITS[byte >> 4];
  out += HEX_DIGITS[byte & 0x0F];
}

}  // namespace

std::string JsonWriter::quote(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  size_t i = 0;
  while (i < text.size()) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte == '"' || byte == '\\') {
      out += '\\';
      out += static_cast<char>(byte);
      ++i;
    } else if (byte < 0x20 || byte == 0x7F) {
      append_escape(out, byte);
      ++i;
    } else if (byte < 0x80) {
      out += static_cast<char>(byte);
      ++i;
    } else if (const size_t length = utf8_length(text, i); length != 0) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      append_escape(out, byte);
      ++i;
    }
  }
  out += '"';
  return out;
}

std::string JsonWriter::number(double value) {
  if (!std::isfinite(value)) return "null";
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return std::string(buffer, result.ptr);
}

void JsonWriter::new_line(size_t depth) {
  stream << '\n';
  for (size_t i = 0; i < depth * static_cast<size_t>(indent); ++i) stream << ' ';
}

void JsonWriter::separate(Level& level) {
  if (level.count > 0) stream << ',';
  if (indent <= 0) {
    // One line without blanks.
  } else if (level.flat) {
    if (level.count > 0) stream << ' ';
  } else {
    new_line(levels.size());
  }
  ++level.count;
}

void JsonWriter::before_value() {
  if (levels.empty()) {
    if (done) throw std::logic_error("JSON document has its value already");
    return;
  }
  Level& level = levels.back();
  if (level.object) {
    if (!level.key_pending) throw std::logic_error("JSON object member without a key");
    level.key_pending = false;
    return;
  }
  separate(level);
}

JsonWriter& JsonWriter::key(std::string_view name) {
  if (levels.empty() || !levels.back().object) throw std::logic_error("JSON key outside an object");
  Level& level = levels.back();
  if (level.key_pending) throw std::logic_error("JSON key without a value");
  separate(level);
  stream << quote(name) << (indent > 0 ? ": " : ":");
  level.key_pending = true;
  return *this;
}

void JsonWriter::open(bool object) {
  before_value();
  const size_t depth = levels.size();
  Level level;
  level.object = object;
  level.flat = (flat_depth >= 0 && depth >= static_cast<size_t>(flat_depth)) ||
               (!levels.empty() && levels.back().flat);
  stream << (object ? '{' : '[');
  levels.push_back(level);
}

void JsonWriter::close(bool object) {
  if (levels.empty() || levels.back().object != object)
    throw std::logic_error(object ? "JSON object closed outside one"
                                  : "JSON array closed outside one");
  const Level level = levels.back();
  if (level.key_pending) throw std::logic_error("JSON key without a value");
  levels.pop_back();
  if (indent > 0 && !level.flat && level.count > 0) new_line(levels.size());
  stream << (object ? '}' : ']');
  if (levels.empty()) done = true;
}

void JsonWriter::begin_object() {
  open(true);
}

void JsonWriter::end_object() {
  close(true);
}

void JsonWriter::begin_array() {
  open(false);
}

void JsonWriter::end_array() {
  close(false);
}

void JsonWriter::scalar(std::string_view text) {
  before_value();
  stream << text;
  if (levels.empty()) done = true;
}

void JsonWriter::string_value(std::string_view text) {
  scalar(quote(text));
}

void JsonWriter::unsigned_value(uint64_t value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  scalar(std::string_view(buffer, static_cast<size_t>(result.ptr - buffer)));
}

void JsonWriter::signed_value(int64_t value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  scalar(std::string_view(buffer, static_cast<size_t>(result.ptr - buffer)));
}

void JsonWriter::double_value(double value) {
  scalar(number(value));
}

void JsonWriter::bool_value(bool value) {
  scalar(value ? "true" : "false");
}

void JsonWriter::null_value() {
  scalar("null");
}

void JsonWriter::finish() {
  if (!levels.empty()) throw std::logic_error("JSON document has open containers");
  if (!done) throw std::logic_error("JSON document has no value");
  stream << '\n';
}

}  // namespace Korvix::Text
