#ifndef KORVIX_TEXT_JSON_WRITER_H
#define KORVIX_TEXT_JSON_WRITER_H

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Korvix::Text {

// Writes one JSON document to a stream as it is built, value by value, so that a document of
// any size needs no memory of its own beyond the nesting.
//
// Strings are taken as bytes. The quote, the backslash, the control characters 0x00 to 0x1F and
// 0x7F are escaped, the control characters as \u00xx. Other ASCII and every well-formed UTF-8
// sequence pass through unchanged; a byte that is not part of one (a file name in Latin-1, or
// garbage) is read as Latin-1 and escaped as \u00xx, so that the document is always valid UTF-8.
//
// Numbers: unsigned and signed 64-bit integers are written exactly. A double is written in the
// shortest form that reads back to the same double; NaN and the infinities, which JSON lacks,
// are written as null.
//
// Misuse (a member without a key, a key in an array, a close that doesn't match, a second
// document) throws std::logic_error: it is a programming error, and never a matter of input.
class JsonWriter {
 public:
  // indent: spaces a level; 0 puts the whole document on one line without blanks. Containers
  // that open at flat_depth or deeper (the outermost is at 0) stay on one line, with a blank
  // after each comma and colon; a negative flat_depth spreads every container over lines.
  explicit JsonWriter(std::ostream& stream_, int32_t indent_ = 2, int32_t flat_depth_ = -1)
      : stream(stream_), indent(indent_), flat_depth(flat_depth_) {}
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  void begin_object();
  void end_object();
  void begin_array();
  void end_array();
  // The name of the next member of the object under way; its value follows on the writer
  // returned, as in json.key("size").unsigned_value(size).
  JsonWriter& key(std::string_view name);

  void string_value(std::string_view text);
  void unsigned_value(uint64_t value);
  void signed_value(int64_t value);
  void double_value(double value);
  void bool_value(bool value);
  void null_value();

  // Ends the document with a newline. Throws unless exactly one whole value was written.
  void finish();

  // A string in quotes, escaped as above.
  static std::string quote(std::string_view text);
  // A double as double_value writes it.
  static std::string number(double value);

 private:
  struct Level {
    bool object = false;
    bool flat = false;
    bool key_pending = false;
    uint64_t count = 0;  // members or elements so far
  };

  void before_value();
  // Writes a value that is complete as it stands: a number, a string in quotes, a literal.
  void scalar(std::string_view text);
  void separate(Level& level);
  void open(bool object);
  void close(bool object);
  void new_line(size_t depth);

  std::ostream& stream;  // not owned
  int32_t indent;
  int32_t flat_depth;
  std::vector<Level> levels;
  bool done = false;  // the document's value is complete
};

}  // namespace Korvix::Text

#endif
