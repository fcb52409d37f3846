#ifndef VDX_TESTS_SUPPORT_JSON_VALUE_H
#define VDX_TESTS_SUPPORT_JSON_VALUE_H

// A small, strict JSON reader for tests: it takes a whole document and gives a tree, keeping
// numbers as their text so that 64-bit integers compare exactly. It throws std::runtime_error
// on anything that isn't JSON, trailing text included.

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace Veldrin::Testing {

struct JsonValue {
  enum Kind { NUL, BOOL, NUMBER, STRING, ARRAY, OBJECT };
  Kind kind = NUL;
  bool boolean = false;
  std::string text;  // a number as written, or a string unescaped to UTF-8
  std::vector<JsonValue> items;
  std::map<std::string, JsonValue> members;
  std::vector<std::string> order;  // member names in document order

  bool has(const std::string& name) const { return members.count(name) != 0; }
  const JsonValue& operator[](const std::string& name) const {
    auto it = members.find(name);
    if (kind != OBJECT || it == members.end()) throw std::runtime_error("no member " + name);
    return it->second;
  }
  const JsonValue& operator[](size_t i) const {
    if (kind != ARRAY || i >= items.size()) throw std::runtime_error("no item");
    return items[i];
  }
  // An unsigned integer number; throws for anything else.
  uint64_t u64() const {
    if (kind != NUMBER || text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
      throw std::runtime_error("not an unsigned integer: " + text);
    return std::stoull(text);
  }
  double number() const {
    if (kind != NUMBER) throw std::runtime_error("not a number");
    return std::stod(text);
  }
  bool is_null() const { return kind == NUL; }
};

class JsonParser {
 public:
  explicit JsonParser(const std::string& text_) : text(text_) {}

  JsonValue document() {
    JsonValue value = parse_value();
    skip_blanks();
    if (at != text.size()) fail("text after the document");
    return value;
  }

 private:
  [[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("JSON: " + what + " at " + std::to_string(at));
  }
  void skip_blanks() {
    while (at < text.size() &&
           (text[at] == ' ' || text[at] == '\n' || text[at] == '\t' || text[at] == '\r'))
      ++at;
  }
  char peek() {
    skip_blanks();
    if (at >= text.size()) fail("end of text");
    return text[at];
  }
  void expect(char c) {
    if (peek() != c) fail(std::string("expected ") + c);
    ++at;
  }
  void literal(const std::string& word) {
    if (text.compare(at, word.size(), word) != 0) fail("bad literal");
    at += word.size();
  }
  static void append_utf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  std::string parse_string() {
    expect('"');
    std::string out;
    while (true) {
      if (at >= text.size()) fail("unterminated string");
      const auto c = static_cast<unsigned char>(text[at++]);
      if (c == '"') return out;
      if (c < 0x20) fail("raw control character in string");
      if (c != '\\') {
        out += static_cast<char>(c);
        continue;
      }
      if (at >= text.size()) fail("unterminated escape");
      const char e = text[at++];
      switch (e) {
        case '"':
          out += '"';
          break;
        case '\\':
          out += '\\';
          break;
        case '/':
          out += '/';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          if (at + 4 > text.size()) fail("short \\u escape");
          const uint32_t code = static_cast<uint32_t>(std::stoul(text.substr(at, 4), nullptr, 16));
          at += 4;
          append_utf8(out, code);
          break;
        }
        default:
          fail("bad escape");
      }
    }
  }
  JsonValue parse_number() {
    const size_t start = at;
    if (text[at] == '-') ++at;
    auto digits = [&] {
      const size_t from = at;
      while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
      if (at == from) fail("digits expected");
    };
    if (at < text.size() && text[at] == '0') {
      ++at;
    } else {
      digits();
    }
    if (at < text.size() && text[at] == '.') {
      ++at;
      digits();
    }
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
      ++at;
      if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
      digits();
    }
    JsonValue value;
    value.kind = JsonValue::NUMBER;
    value.text = text.substr(start, at - start);
    return value;
  }
  JsonValue parse_value() {
    const char c = peek();
    JsonValue value;
    if (c == '{') {
      ++at;
      value.kind = JsonValue::OBJECT;
      if (peek() == '}') {
        ++at;
        return value;
      }
      while (true) {
        const std::string name = parse_string();
        expect(':');
        if (value.members.count(name)) fail("duplicate member " + name);
        value.order.push_back(name);
        value.members[name] = parse_value();
        if (peek() == ',') {
          ++at;
          continue;
        }
        expect('}');
        return value;
      }
    }
    if (c == '[') {
      ++at;
      value.kind = JsonValue::ARRAY;
      if (peek() == ']') {
        ++at;
        return value;
      }
      while (true) {
        value.items.push_back(parse_value());
        if (peek() == ',') {
          ++at;
          continue;
        }
        expect(']');
        return value;
      }
    }
    if (c == '"') {
      value.kind = JsonValue::STRING;
      value.text = parse_string();
      return value;
    }
    if (c == 't') {
      literal("true");
      value.kind = JsonValue::BOOL;
      value.boolean = true;
      return value;
    }
    if (c == 'f') {
      literal("false");
      value.kind = JsonValue::BOOL;
      return value;
    }
    if (c == 'n') {
      literal("null");
      return value;
    }
    if (c == '-' || (c >= '0' && c <= '9')) return parse_number();
    fail("unexpected character");
  }

  const std::string& text;
  size_t at = 0;
};

// The document's tree; throws std::runtime_error if the text isn't one JSON document.
inline JsonValue parse_json(const std::string& text) {
  return JsonParser(text).document();
}

}  // namespace Veldrin::Testing

#endif
