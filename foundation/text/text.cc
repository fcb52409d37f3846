#include "foundation/text/text.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <sstream>

namespace Korvix::Text {

std::string to_lower(const std::string& text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

std::string to_upper(const std::string& text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return result;
}

int32_t text_to_int(const std::string& text) {
  long value = std::strtol(text.c_str(), nullptr, 10);
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

std::string int_to_text(int32_t value) {
  return std::to_string(value);
}

std::string int_to_text(int32_t value, int32_t shift) {
  if (shift == 0) return int_to_text(value);
  bool negative = value < 0;
  std::string digits = std::to_string(negative ? -static_cast<int64_t>(value) : value);
  if (shift < 0) {
    digits.append(static_cast<size_t>(-static_cast<int64_t>(shift)), '0');
  } else {
    size_t places = static_cast<size_t>(shift);
    if (digits.size() <= places) digits.insert(0, places + 1 - digits.size(), '0');
    digits.insert(digits.size() - places, 1, '.');
  }
  return negative ? "-" + digits : digits;
}

int32_t text_to_int(const std::string& text, int32_t shift) {
  // Unsigned arithmetic, so that an over-long number wraps instead of overflowing.
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  auto digit = [&](size_t at) { return at < text.size() && text[at] >= '0' && text[at] <= '9'; };
  uint64_t value = 0;
  while (digit(i)) value = value * 10 + static_cast<uint64_t>(text[i++] - '0');
  if (shift < 0) {
    for (int64_t n = shift; n < 0 && value != 0; ++n) value /= 10;
  } else {
    if (i < text.size() && text[i] == '.') ++i;
    for (int32_t n = 0; n < shift; ++n) {
      // Past 64 further places a number without more digits is 0 modulo 2 to the 64.
      if (value == 0 && !digit(i)) break;
      value *= 10;
      if (digit(i)) value += static_cast<uint64_t>(text[i++] - '0');
    }
  }
  if (negative) value = 0 - value;
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

std::string double_to_text(double value, int32_t width, int32_t precision, bool zero_fill) {
  std::ostringstream out;
  if (width != 0) out << std::setw(width);
  if (precision != 0) out << std::fixed << std::showpoint << std::setprecision(precision);
  if (zero_fill) out << std::setfill('0');
  out << value;
  return out.str();
}

double text_to_double(const std::string& text) {
  return std::strtod(text.c_str(), nullptr);
}

std::string substitute(const std::string& text, const std::string& old, const std::string& rep) {
  std::string result(text);
  if (result.empty() || old.empty()) return result;
  size_t position = 0;
  while (position < result.size()) {
    size_t found = result.find(old, position);
    if (found == std::string::npos) break;
    result.replace(found, old.size(), rep);
    position = found + rep.size();
  }
  return result;
}

namespace {

int hex_digit(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

size_t hex_to_bytes(const std::string& hex, unsigned char* buffer, size_t max) {
  size_t count = 0;
  for (size_t i = 0; count < max && i + 1 < hex.size(); i += 2) {
    int high = hex_digit(static_cast<unsigned char>(hex[i]));
    int low = hex_digit(static_cast<unsigned char>(hex[i + 1]));
    if (high < 0 || low < 0) break;
    buffer[count++] = static_cast<unsigned char>(high * 16 + low);
  }
  return count;
}

std::string bytes_to_hex(const unsigned char* data, size_t length) {
  std::string result;
  result.reserve(length * 2);
  char pair[3];
  for (size_t i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof(pair), "%02x", data[i]);
    result.append(pair, 2);
  }
  return result;
}

uint32_t hex_text_to_int(const std::string& text) {
  unsigned int value = 0;
  if (std::sscanf(text.c_str(), "%x", &value) != 1) return 0;
  return value;
}

uint64_t hex_text_to_int64(const std::string& text) {
  unsigned long long value = 0;
  if (std::sscanf(text.c_str(), "%llx", &value) != 1) return 0;
  return value;
}

uint64_t text_to_int64(const std::string& text) {
  unsigned long long value = 0;
  if (std::sscanf(text.c_str(), "%llu", &value) != 1) return 0;
  return value;
}

std::string int_to_hex_text(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "%x", value);
  return text;
}

std::string int64_to_hex_text(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof(text), "%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string int64_to_text(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof(text), "%llu", static_cast<unsigned long long>(value));
  return text;
}

}  // namespace Korvix::Text
