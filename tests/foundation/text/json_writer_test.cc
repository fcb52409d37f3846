#include "foundation/text/json_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Korvix::Text {
namespace {

TEST(JsonWriter, QuoteAndBackslashAreEscapedWithABackslash) {
  EXPECT_EQ(JsonWriter::quote("say \"hi\" \\ bye"), "\"say \\\"hi\\\" \\\\ bye\"");
}

TEST(JsonWriter, ControlCharactersBecomeUnicodeEscapes) {
  EXPECT_EQ(JsonWriter::quote(std::string("a\nb\tc\x01\x1f", 7)),
            "\"a\\u000ab\\u0009c\\u0001\\u001f\"");
  EXPECT_EQ(JsonWriter::quote(std::string("\0", 1)), "\"\\u0000\"");
  EXPECT_EQ(JsonWriter::quote("\x7f"), "\"\\u007f\"");
}

TEST(JsonWriter, PrintableAsciiPassesUnchanged) {
  EXPECT_EQ(JsonWriter::quote("samples/sample.ts.vdx2 ~!@#$%^&*()/'"),
            "\"samples/sample.ts.vdx2 ~!@#$%^&*()/'\"");
  EXPECT_EQ(JsonWriter::quote(""), "\"\"");
}

TEST(JsonWriter, WellFormedUtf8PassesUnchanged) {
  // é (2 bytes), € (3 bytes), U+1F600 (4 bytes), U+10FFFF, the last code point.
  const std::string text = "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf";
  EXPECT_EQ(JsonWriter::quote(text), "\"" + text + "\"");
}

TEST(JsonWriter, StrayBytesAreTakenAsLatin1AndEscaped) {
  // A Latin-1 é alone, a lone continuation byte, and a lead byte cut off at the end.
  EXPECT_EQ(JsonWriter::quote("caf\xe9"), "\"caf\\u00e9\"");
  EXPECT_EQ(JsonWriter::quote("\x80x"), "\"\\u0080x\"");
  EXPECT_EQ(JsonWriter::quote("x\xe2\x82"), "\"x\\u00e2\\u0082\"");
}

TEST(JsonWriter, OverlongSurrogateAndOutOfRangeFormsAreNotUtf8) {
  EXPECT_EQ(JsonWriter::quote("\xc0\xaf"), "\"\\u00c0\\u00af\"");             // overlong "/"
  EXPECT_EQ(JsonWriter::quote("\xe0\x80\xaf"), "\"\\u00e0\\u0080\\u00af\"");  // overlong
  EXPECT_EQ(JsonWriter::quote("\xed\xa0\x80"), "\"\\u00ed\\u00a0\\u0080\"");  // U+D800
  EXPECT_EQ(JsonWriter::quote("\xf4\x90\x80\x80"),
            "\"\\u00f4\\u0090\\u0080\\u0080\"");  // U+110000
  EXPECT_EQ(JsonWriter::quote("\xf0\x8f\xbf\xbf"),
            "\"\\u00f0\\u008f\\u00bf\\u00bf\"");  // overlong U+FFFF
  EXPECT_EQ(JsonWriter::quote("\xf8\x88\x80\x80\x80"),
            "\"\\u00f8\\u0088\\u0080\\u0080\\u0080\"");  // five-byte form
}

TEST(JsonWriter, Unsigned64BitNumbersAreExact) {
  std::ostringstream out;
  JsonWriter json(out, 0);
  json.begin_array();
  json.unsigned_value(0);
  json.unsigned_value(std::numeric_limits<uint64_t>::max());
  json.unsigned_value(9007199254740993ull);  // 2^53 + 1: no double holds it
  json.end_array();
  json.finish();
  EXPECT_EQ(out.str(), "[0,18446744073709551615,9007199254740993]\n");
}

TEST(JsonWriter, SignedNumbersKeepTheirSign) {
  std::ostringstream out;
  JsonWriter json(out, 0);
  json.begin_array();
  json.signed_value(-1);
  json.signed_value(std::numeric_limits<int64_t>::min());
  json.end_array();
  json.finish();
  EXPECT_EQ(out.str(), "[-1,-9223372036854775808]\n");
}

TEST(JsonWriter, DoublesHaveTheShortestFormThatReadsBack) {
  EXPECT_EQ(JsonWriter::number(12.5), "12.5");
  EXPECT_EQ(JsonWriter::number(0.1), "0.1");
  EXPECT_EQ(JsonWriter::number(3.0), "3");
  EXPECT_EQ(JsonWriter::number(-0.016), "-0.016");
  EXPECT_EQ(JsonWriter::number(1e21), "1e+21");
  EXPECT_EQ(JsonWriter::number(0.1 + 0.2), "0.30000000000000004");
  const double third = 1.0 / 3.0;
  EXPECT_EQ(std::stod(JsonWriter::number(third)), third);
}

TEST(JsonWriter, NanAndInfinityAreNull) {
  EXPECT_EQ(JsonWriter::number(std::numeric_limits<double>::quiet_NaN()), "null");
  EXPECT_EQ(JsonWriter::number(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(JsonWriter::number(-std::numeric_limits<double>::infinity()), "null");
}

TEST(JsonWriter, CompactDocumentHasNoBlanks) {
  std::ostringstream out;
  JsonWriter json(out, 0);
  json.begin_object();
  json.key("name");
  json.string_value("x");
  json.key("list");
  json.begin_array();
  json.bool_value(true);
  json.bool_value(false);
  json.null_value();
  json.double_value(0.5);
  json.end_array();
  json.key("empty");
  json.begin_object();
  json.end_object();
  json.end_object();
  json.finish();
  EXPECT_EQ(out.str(), "{\"name\":\"x\",\"list\":[true,false,null,0.5],\"empty\":{}}\n");
}

TEST(JsonWriter, IndentedDocumentPutsEachMemberOnALine) {
  std::ostringstream out;
  JsonWriter json(out, 2);
  json.begin_object();
  json.key("a");
  json.unsigned_value(1);
  json.key("b");
  json.begin_array();
  json.unsigned_value(2);
  json.begin_object();
  json.key("c");
  json.null_value();
  json.end_object();
  json.end_array();
  json.key("d");
  json.begin_array();
  json.end_array();
  json.end_object();
  json.finish();
  EXPECT_EQ(out.str(),
            "{\n"
            "  \"a\": 1,\n"
            "  \"b\": [\n"
            "    2,\n"
            "    {\n"
            "      \"c\": null\n"
            "    }\n"
            "  ],\n"
            "  \"d\": []\n"
            "}\n");
}

TEST(JsonWriter, ContainersFromTheFlatDepthOnStayOnOneLine) {
  std::ostringstream out;
  JsonWriter json(out, 2, 2);
  json.begin_object();
  json.key("blocks");
  json.begin_array();
  for (uint64_t i = 0; i < 2; ++i) {
    json.begin_object();
    json.key("number");
    json.unsigned_value(i);
    json.key("links");
    json.begin_array();
    json.unsigned_value(7);
    json.unsigned_value(8);
    json.end_array();
    json.end_object();
  }
  json.end_array();
  json.end_object();
  json.finish();
  EXPECT_EQ(out.str(),
            "{\n"
            "  \"blocks\": [\n"
            "    {\"number\": 0, \"links\": [7, 8]},\n"
            "    {\"number\": 1, \"links\": [7, 8]}\n"
            "  ]\n"
            "}\n");
}

TEST(JsonWriter, KeysAreEscapedLikeStrings) {
  std::ostringstream out;
  JsonWriter json(out, 0);
  json.begin_object();
  json.key("a\"b");
  json.unsigned_value(1);
  json.end_object();
  json.finish();
  EXPECT_EQ(out.str(), "{\"a\\\"b\":1}\n");
}

TEST(JsonWriter, AScalarAloneIsADocument) {
  std::ostringstream out;
  JsonWriter json(out);
  json.string_value("only");
  json.finish();
  EXPECT_EQ(out.str(), "\"only\"\n");
}

TEST(JsonWriter, MemberWithoutAKeyIsRefused) {
  std::ostringstream out;
  JsonWriter json(out);
  json.begin_object();
  EXPECT_THROW(json.unsigned_value(1), std::logic_error);
}

TEST(JsonWriter, KeyInAnArrayIsRefused) {
  std::ostringstream out;
  JsonWriter json(out);
  json.begin_array();
  EXPECT_THROW(json.key("a"), std::logic_error);
}

TEST(JsonWriter, TwoKeysInARowAreRefused) {
  std::ostringstream out;
  JsonWriter json(out);
  json.begin_object();
  json.key("a");
  EXPECT_THROW(json.key("b"), std::logic_error);
  EXPECT_THROW(json.end_object(), std::logic_error);
}

TEST(JsonWriter, MismatchedCloseIsRefused) {
  std::ostringstream out;
  JsonWriter json(out);
  json.begin_array();
  EXPECT_THROW(json.end_object(), std::logic_error);
  JsonWriter other(out);
  EXPECT_THROW(other.end_array(), std::logic_error);
}

TEST(JsonWriter, SecondDocumentValueIsRefused) {
  std::ostringstream out;
  JsonWriter json(out);
  json.unsigned_value(1);
  EXPECT_THROW(json.unsigned_value(2), std::logic_error);
  EXPECT_THROW(json.begin_object(), std::logic_error);
}

TEST(JsonWriter, UnfinishedOrEmptyDocumentCannotBeFinished) {
  std::ostringstream out;
  JsonWriter empty(out);
  EXPECT_THROW(empty.finish(), std::logic_error);
  JsonWriter open(out);
  open.begin_object();
  EXPECT_THROW(open.finish(), std::logic_error);
  EXPECT_EQ(out.str(), "{");
}

}  // namespace
}  // namespace Korvix::Text
