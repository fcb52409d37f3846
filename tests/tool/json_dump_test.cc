#include "tool/json_dump.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "foundation/channel/error.h"
#include "support/index_bytes.h"
#include "support/json_value.h"

namespace Veldrin::Tool {
namespace {

using Testing::Vdx2BlockBytes;
using Testing::VdxBlockBytes;

std::string vdx2_sample() {
  return Testing::vdx2_file({{564, 12500, 3, 2, 0, 0, 0, "AB"},
                             {752, 12500, 12, 2, 1, 376, 940, ""},
                             {1500, 13000, 1, 0, 0, 0, 0, ""}},
                            1, 64);
}

std::string json_of(const std::string& bytes, IndexFormat format, bool show_data) {
  std::istringstream in(bytes);
  std::ostringstream out;
  dump_index_json(in, format, "a.idx", out, show_data);
  return out.str();
}

TEST(JsonDump, Vdx2HeaderAndEveryBlockWithItsGroup) {
  EXPECT_EQ(
      json_of(vdx2_sample(), IndexFormat::VDX2, false),
      "{\n"
      "  \"index\": \"a.idx\",\n"
      "  \"format\": \"VDX2\",\n"
      "  \"header\": {\n"
      "    \"header_size\": 64,\n"
      "    \"flags\": 1,\n"
      "    \"external_frames\": true,\n"
      "    \"block_size\": 64\n"
      "  },\n"
      "  \"blocks\": [\n"
      "    {\"number\": 0, \"position\": 64, \"offset\": 564, \"npt_ms\": 12500, \"flags\": 3, "
      "\"flag_names\": [\"NEW_NPT\", \"INTRA\"], \"count\": 2, \"index\": 0, \"group\": 0, "
      "\"ref_length\": 0, \"ref_offset\": 0, \"data_length\": 2},\n"
      "    {\"number\": 1, \"position\": 128, \"offset\": 752, \"npt_ms\": 12500, \"flags\": 12, "
      "\"flag_names\": [\"REF\", \"VIDEO_START\"], \"count\": 2, \"index\": 1, \"group\": 0, "
      "\"ref_length\": 376, \"ref_offset\": 940, \"data_length\": 0},\n"
      "    {\"number\": 2, \"position\": 192, \"offset\": 1500, \"npt_ms\": 13000, \"flags\": 1, "
      "\"flag_names\": [\"NEW_NPT\"], \"count\": 0, \"index\": 0, \"group\": null, "
      "\"ref_length\": 0, \"ref_offset\": 0, \"data_length\": 0}\n"
      "  ]\n"
      "}\n");
}

TEST(JsonDump, Vdx2DataIsHexadecimalWhenAskedFor) {
  const Testing::JsonValue doc =
      Testing::parse_json(json_of(vdx2_sample(), IndexFormat::VDX2, true));
  EXPECT_EQ(doc["blocks"][0]["data"].text, "4142");
  EXPECT_EQ(doc["blocks"][1]["data"].text, "");
  EXPECT_FALSE(
      Testing::parse_json(json_of(vdx2_sample(), IndexFormat::VDX2, false))["blocks"][0].has(
          "data"));
}

TEST(JsonDump, Vdx2GroupsAreNumberedInFileOrder) {
  const std::string bytes = Testing::vdx2_file({{0, 0, 2, 2, 0, 0, 0, ""},
                                                {0, 0, 0, 2, 1, 0, 0, ""},
                                                {0, 0, 1, 0, 0, 0, 0, ""},
                                                {0, 0, 2, 1, 0, 0, 0, ""}});
  const Testing::JsonValue doc = Testing::parse_json(json_of(bytes, IndexFormat::VDX2, false));
  EXPECT_EQ(doc["blocks"][0]["group"].u64(), 0u);
  EXPECT_EQ(doc["blocks"][1]["group"].u64(), 0u);
  EXPECT_TRUE(doc["blocks"][2]["group"].is_null());
  EXPECT_EQ(doc["blocks"][3]["group"].u64(), 1u);
}

TEST(JsonDump, Vdx2OffsetsBeyond32BitsAreExact) {
  const std::string bytes = Testing::vdx2_file(
      {{0xFFFFFFFFFFFFFFFFull, 4294967295u, 4, 0, 0, 4294967295u, 0x123456789ABCDEF0ull, ""}});
  const Testing::JsonValue doc = Testing::parse_json(json_of(bytes, IndexFormat::VDX2, false));
  EXPECT_EQ(doc["blocks"][0]["offset"].text, "18446744073709551615");
  EXPECT_EQ(doc["blocks"][0]["npt_ms"].u64(), 4294967295u);
  EXPECT_EQ(doc["blocks"][0]["ref_length"].u64(), 4294967295u);
  EXPECT_EQ(doc["blocks"][0]["ref_offset"].u64(), 0x123456789ABCDEF0ull);
}

TEST(JsonDump, Vdx2CutAfterTheHeaderStillGivesAWholeDocumentWithTheError) {
  std::string bytes = vdx2_sample();
  bytes.resize(64 + 64 + 40);  // the second block's data is cut
  std::istringstream in(bytes);
  std::ostringstream out;
  EXPECT_THROW(dump_index_json(in, IndexFormat::VDX2, "a.idx", out, false), Korvix::Channel::Error);
  const Testing::JsonValue doc = Testing::parse_json(out.str());
  EXPECT_EQ(doc["blocks"].items.size(), 1u);
  EXPECT_EQ(doc["error"].text, "damaged or cut short (EOF)");
}

TEST(JsonDump, Vdx2WithABadMagicWritesNothing) {
  std::string bytes = vdx2_sample();
  bytes[3] = '3';
  std::istringstream in(bytes);
  std::ostringstream out;
  EXPECT_THROW(dump_index_json(in, IndexFormat::VDX2, "a.idx", out, false), Korvix::Channel::Error);
  EXPECT_EQ(out.str(), "");
}

TEST(JsonDump, VdxHeaderTableAndBlocksWithTheirLinks) {
  std::vector<VdxBlockBytes> blocks{{500, 188, {}, {}, std::string(188, 'a')},
                                    {1000, 564, {}, {}, std::string(376, 'b')}};
  Testing::link_vdx_blocks(blocks, 16);
  const std::string bytes = Testing::vdx_file(65536, {{1, 500, 188}, {3, 1000, 564}}, blocks);
  EXPECT_EQ(
      json_of(bytes, IndexFormat::VDX, false),
      "{\n"
      "  \"index\": \"a.idx\",\n"
      "  \"format\": \"VDX\",\n"
      "  \"header\": {\n"
      "    \"header_size\": 4096,\n"
      "    \"version\": 1,\n"
      "    \"blocks\": 2,\n"
      "    \"precision\": 65536,\n"
      "    \"entries\": 2\n"
      "  },\n"
      "  \"table\": [\n"
      "    {\"number\": 0, \"source_position\": 0, \"block_page\": 1, \"block_position\": "
      "4096, \"npt_ms\": 500, \"offset\": 188},\n"
      "    {\"number\": 1, \"source_position\": 65536, \"block_page\": 3, "
      "\"block_position\": 12288, \"npt_ms\": 1000, \"offset\": 564}\n"
      "  ],\n"
      "  \"blocks\": [\n"
      "    {\"number\": 0, \"position\": 4096, \"size\": 188, \"npt_ms\": 500, \"offset\": 188, "
      "\"forward\": [376], \"backward\": []},\n"
      "    {\"number\": 1, \"position\": 12288, \"size\": 376, \"npt_ms\": 1000, \"offset\": "
      "564, \"forward\": [], \"backward\": [188]}\n"
      "  ]\n"
      "}\n");
}

TEST(JsonDump, VdxFrameDataIsHexadecimalWhenAskedFor) {
  std::vector<VdxBlockBytes> blocks{{0, 0, {}, {}, "\x47\x01"}};
  const Testing::JsonValue doc =
      Testing::parse_json(json_of(Testing::vdx_file(65536, {}, blocks), IndexFormat::VDX, true));
  EXPECT_EQ(doc["blocks"][0]["data"].text, "4701");
}

TEST(JsonDump, VdxCutInsideABlockEndsTheDocumentWithTheError) {
  std::vector<VdxBlockBytes> blocks{{0, 0, {}, {}, std::string(188, 'a')},
                                    {0, 0, {}, {}, std::string(188, 'b')}};
  std::string bytes = Testing::vdx_file(65536, {}, blocks);
  bytes.resize(bytes.size() - 4096);
  std::istringstream in(bytes);
  std::ostringstream out;
  EXPECT_THROW(dump_index_json(in, IndexFormat::VDX, "a.idx", out, false), Korvix::Channel::Error);
  const Testing::JsonValue doc = Testing::parse_json(out.str());
  EXPECT_EQ(doc["blocks"].items.size(), 1u);
  EXPECT_EQ(doc["error"].text.rfind("damaged or cut short (", 0), 0u);
}

TEST(JsonDump, IndexNameIsEscaped) {
  std::istringstream in(vdx2_sample());
  std::ostringstream out;
  dump_index_json(in, IndexFormat::VDX2, "we\"ird\n.vdx2", out, false);
  EXPECT_EQ(Testing::parse_json(out.str())["index"].text, "we\"ird\n.vdx2");
  EXPECT_NE(out.str().find("\"we\\\"ird\\u000a.vdx2\""), std::string::npos);
}

}  // namespace
}  // namespace Veldrin::Tool
