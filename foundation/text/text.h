#ifndef KORVIX_TEXT_TEXT_H
#define KORVIX_TEXT_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Korvix::Text {

// Case folding byte by byte; bytes are taken as unsigned, so the upper half passes unharmed.
std::string to_lower(const std::string& text);
std::string to_upper(const std::string& text);

// strtol in base 10, truncated to 32 bits; garbage gives 0 and no error.
int32_t text_to_int(const std::string& text);
std::string int_to_text(int32_t value);

// Fixed-point text: shift places of value are put behind a ".", with "0" in front as needed;
// a negative shift appends zeros instead. int_to_text(1234, 2) is "12.34", int_to_text(5, 3)
// is "0.005", int_to_text(12, -2) is "1200".
std::string int_to_text(int32_t value, int32_t shift);
// The reverse: text_to_int("12.34", 2) is 1234; digits beyond the shift are dropped.
int32_t text_to_int(const std::string& text, int32_t shift);

// A width of 0 means none; a precision of 0 means default formatting, any other fixed notation
// with the point always shown. With zero_fill the padding is "0".
std::string double_to_text(double value, int32_t width = 0, int32_t precision = 0,
                           bool zero_fill = false);
// strtod; garbage gives 0.
double text_to_double(const std::string& text);

// A copy of text with each occurrence of old replaced by rep. The scan goes on behind each
// replacement, so a rep that holds old doesn't loop. An empty old changes nothing.
std::string substitute(const std::string& text, const std::string& old, const std::string& rep);

// Pairs of hexadecimal digits to bytes, at most max of them, up to the first pair that isn't
// one; gives the number of bytes stored.
size_t hex_to_bytes(const std::string& hex, unsigned char* buffer, size_t max);
// Two lower-case digits a byte.
std::string bytes_to_hex(const unsigned char* data, size_t length);

// Parsers of hexadecimal and decimal numbers; 0 when the text doesn't start with one.
uint32_t hex_text_to_int(const std::string& text);
uint64_t hex_text_to_int64(const std::string& text);
uint64_t text_to_int64(const std::string& text);
// Their formatters: lower-case hexadecimal without prefix, and decimal.
std::string int_to_hex_text(uint32_t value);
std::string int64_to_hex_text(uint64_t value);
std::string int64_to_text(uint64_t value);

}  // namespace Korvix::Text

#endif
