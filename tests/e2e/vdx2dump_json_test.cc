#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "e2e/dump_support.h"
#include "e2e/streams.h"
#include "e2e/vdx_file.h"
#include "support/json_value.h"

namespace Veldrin::Testing {
namespace {

const std::string FIXTURE = "mpeg2_bframes.ts";

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (const char byte : bytes) {
    const auto c = static_cast<unsigned char>(byte);
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

// The names of the block flags of the format, in the order of their values.
std::vector<std::string> flag_names(uint32_t flags) {
  std::vector<std::string> names;
  if (flags & 1) names.push_back("NEW_NPT");
  if (flags & 2) names.push_back("INTRA");
  if (flags & 4) names.push_back("REF");
  if (flags & 8) names.push_back("VIDEO_START");
  return names;
}

std::vector<std::string> strings_of(const JsonValue& array) {
  std::vector<std::string> out;
  for (const JsonValue& item : array.items) out.push_back(item.text);
  return out;
}

std::vector<uint32_t> numbers_of(const JsonValue& array) {
  std::vector<uint32_t> out;
  for (const JsonValue& item : array.items) out.push_back(static_cast<uint32_t>(item.u64()));
  return out;
}

TEST(Vdx2DumpJson, Vdx2DocumentHoldsEveryFieldOfEveryBlock) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  ASSERT_TRUE(file.valid);
  ASSERT_FALSE(file.blocks.empty());

  RunResult result = run_vdx2dump({"--json", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const JsonValue doc = parse_json(result.out);
  EXPECT_EQ(doc.order, (std::vector<std::string>{"index", "format", "header", "blocks"}));
  EXPECT_EQ(doc["index"].text, FIXTURE + ".vdx2");
  EXPECT_EQ(doc["format"].text, "VDX2");
  EXPECT_EQ(doc["header"]["header_size"].u64(), 256u);
  EXPECT_EQ(doc["header"]["flags"].u64(), 0u);
  EXPECT_FALSE(doc["header"]["external_frames"].boolean);
  EXPECT_EQ(doc["header"]["block_size"].u64(), 256u);
  ASSERT_EQ(doc["blocks"].items.size(), file.blocks.size());
  int64_t group = -1;
  for (size_t n = 0; n < file.blocks.size(); ++n) {
    const Vdx2Block& block = file.blocks[n];
    const JsonValue& json = doc["blocks"][n];
    SCOPED_TRACE("block " + std::to_string(n));
    EXPECT_EQ(json["number"].u64(), n);
    EXPECT_EQ(json["position"].u64(), 256 + 256 * n);
    EXPECT_EQ(json["offset"].u64(), block.offset);
    EXPECT_EQ(json["npt_ms"].u64(), block.npt);
    EXPECT_EQ(json["flags"].u64(), block.flags);
    EXPECT_EQ(strings_of(json["flag_names"]), flag_names(block.flags));
    EXPECT_EQ(json["count"].u64(), block.count);
    EXPECT_EQ(json["index"].u64(), block.index);
    if (block.count == 0) {
      EXPECT_TRUE(json["group"].is_null());
    } else {
      if (block.index == 0) ++group;
      EXPECT_EQ(json["group"].u64(), static_cast<uint64_t>(group));
    }
    EXPECT_EQ(json["ref_length"].u64(), block.ref_length);
    EXPECT_EQ(json["ref_offset"].u64(), block.ref_offset);
    EXPECT_EQ(json["data_length"].u64(), block.data.size());
    EXPECT_FALSE(json.has("data"));
  }
  // The fixture has frames: groups and references are there to be seen.
  EXPECT_GT(group, 0);
}

TEST(Vdx2DumpJson, InlineOptionAddsTheDataInHex) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  RunResult result = run_vdx2dump({FIXTURE + ".vdx2", "-x", "-j"}, dir.path);
  ASSERT_EQ(result.status, 0);
  const JsonValue doc = parse_json(result.out);
  ASSERT_EQ(doc["blocks"].items.size(), file.blocks.size());
  for (size_t n = 0; n < file.blocks.size(); ++n)
    EXPECT_EQ(doc["blocks"][n]["data"].text, hex(file.blocks[n].data)) << n;
}

TEST(Vdx2DumpJson, ExternalFramesShowInTheHeader) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-Ix"}));
  RunResult result = run_vdx2dump({"-j", FIXTURE + ".vdx2"}, dir.path);
  ASSERT_EQ(result.status, 0);
  const JsonValue doc = parse_json(result.out);
  EXPECT_EQ(doc["header"]["flags"].u64(), 1u);
  EXPECT_TRUE(doc["header"]["external_frames"].boolean);
}

TEST(Vdx2DumpJson, VdxDocumentHoldsHeaderTableLinksAndBlocks) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx", "-In", "3"}));
  const VdxFile file = parse_vdx(read_file(dir.file(FIXTURE + ".vdx")));
  ASSERT_TRUE(file.valid);
  ASSERT_GE(file.blocks.size(), 7u);

  RunResult result = run_vdx2dump({"--json", FIXTURE + ".vdx"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const JsonValue doc = parse_json(result.out);
  EXPECT_EQ(doc.order, (std::vector<std::string>{"index", "format", "header", "table", "blocks"}));
  EXPECT_EQ(doc["format"].text, "VDX");
  EXPECT_EQ(doc["header"]["header_size"].u64(), file.header_size);
  EXPECT_EQ(doc["header"]["version"].u64(), 1u);
  EXPECT_EQ(doc["header"]["blocks"].u64(), file.block_count);
  EXPECT_EQ(doc["header"]["precision"].u64(), 65536u);
  EXPECT_EQ(doc["header"]["entries"].u64(), file.entry_count);
  ASSERT_EQ(doc["table"].items.size(), file.table.size());
  for (size_t i = 0; i < file.table.size(); ++i) {
    const JsonValue& entry = doc["table"][i];
    SCOPED_TRACE("entry " + std::to_string(i));
    EXPECT_EQ(entry["number"].u64(), i);
    EXPECT_EQ(entry["source_position"].u64(), 65536u * i);
    EXPECT_EQ(entry["block_page"].u64(), file.table[i].page);
    EXPECT_EQ(entry["block_position"].u64(), 4096u * file.table[i].page);
    EXPECT_EQ(entry["npt_ms"].u64(), file.table[i].npt);
    EXPECT_EQ(entry["offset"].u64(), file.table[i].offset);
  }
  ASSERT_EQ(doc["blocks"].items.size(), file.blocks.size());
  for (size_t j = 0; j < file.blocks.size(); ++j) {
    const JsonValue& block = doc["blocks"][j];
    SCOPED_TRACE("block " + std::to_string(j));
    EXPECT_EQ(block["position"].u64(), file.blocks[j].position);
    EXPECT_EQ(block["size"].u64(), file.blocks[j].size);
    EXPECT_EQ(block["npt_ms"].u64(), file.blocks[j].npt);
    EXPECT_EQ(block["offset"].u64(), file.blocks[j].offset);
    EXPECT_EQ(numbers_of(block["forward"]), file.blocks[j].forward_sizes);
    EXPECT_EQ(numbers_of(block["backward"]), file.blocks[j].backward_sizes);
  }
  // With three links, a block with three others on each side links three each way.
  EXPECT_EQ(doc["blocks"][3]["forward"].items.size(), 3u);
  EXPECT_EQ(doc["blocks"][3]["backward"].items.size(), 3u);
}

TEST(Vdx2DumpJson, PythonAndJqAcceptBothFormats) {
  VDX_REQUIRE_PROGRAM("python3");
  VDX_REQUIRE_PROGRAM("jq");
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  const Vdx2File vdx2 = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  const VdxFile vdx = parse_vdx(read_file(dir.file(FIXTURE + ".vdx")));
  for (const std::string& index : {FIXTURE + ".vdx2", FIXTURE + ".vdx"}) {
    SCOPED_TRACE(index);
    RunResult dumped = run_vdx2dump({"-j", "-x", index}, dir.path);
    ASSERT_EQ(dumped.status, 0);
    RunResult python = run_tool_on("python3", {"-m", "json.tool"}, dumped.out);
    EXPECT_EQ(python.status, 0) << python.err;
    RunResult jq = run_tool_on("jq", {".blocks | length"}, dumped.out);
    EXPECT_EQ(jq.status, 0) << jq.err;
    const size_t blocks = index == FIXTURE + ".vdx" ? vdx.blocks.size() : vdx2.blocks.size();
    EXPECT_EQ(jq.out, std::to_string(blocks) + "\n");
  }
}

TEST(Vdx2DumpJson, CutIndexGivesAWholeDocumentEndingInTheErrorAndStatusThree) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  const std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  ASSERT_TRUE(write_file(dir.file("cut.vdx2"), bytes.substr(0, 256 * 3 + 100)));
  RunResult result = run_vdx2dump({"-j", "cut.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err.rfind(vdx2dump_path() + ": cut.vdx2: damaged or cut short (", 0), 0u)
      << result.err;
  const JsonValue doc = parse_json(result.out);
  EXPECT_EQ(doc["blocks"].items.size(), 2u);
  EXPECT_EQ(doc["error"].text.rfind("damaged or cut short (", 0), 0u);
}

TEST(Vdx2DumpJson, OverlongBlockEndsTheDocumentWithItsError) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  bytes[256 + 256 + 35] = static_cast<char>(0xDD);  // the second block's data length: 221
  ASSERT_TRUE(write_file(dir.file("bad.vdx2"), bytes));
  RunResult result = run_vdx2dump({"-j", "bad.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err,
            vdx2dump_path() + ": bad.vdx2: damaged or cut short (Block data too long)\n");
  const JsonValue doc = parse_json(result.out);
  EXPECT_EQ(doc["blocks"].items.size(), 1u);
  EXPECT_EQ(doc["error"].text, "damaged or cut short (Block data too long)");
}

TEST(Vdx2DumpJson, VdxWithATableLargerThanItsHeaderWritesNothing) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  std::string bytes = read_file(dir.file(FIXTURE + ".vdx"));
  bytes[20] = '\x7F';  // a table of about two thousand million entries
  ASSERT_TRUE(write_file(dir.file("bad.vdx"), bytes));
  RunResult result = run_vdx2dump({"--json", "bad.vdx"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            vdx2dump_path() + ": bad.vdx: damaged or cut short (Table larger than header)\n");
}

TEST(Vdx2DumpJson, FileThatIsNoIndexWritesNothing) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  RunResult result = run_vdx2dump({"-j", FIXTURE}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            vdx2dump_path() + ": " + FIXTURE + " is neither a VDX2 nor a VDX index file\n");
}

TEST(Vdx2DumpJson, JsonDoesNotGoWithReplay) {
  RunResult result = run_vdx2dump({"-j", "-r", "a.ts", "a.vdx2"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, vdx2dump_path() + ": --json goes with the dump and --at only\n");
}

}  // namespace
}  // namespace Veldrin::Testing
