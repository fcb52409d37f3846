#include "tool/index_replay.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support/index_bytes.h"
#include "support/scratch_dir.h"
#include "tool/dump_failure.h"

namespace Veldrin::Tool {
namespace {

using Testing::ScratchDir;
using Testing::Vdx2BlockBytes;

// Ten distinct packets; packet k is at 188 k.
std::string source_stream() {
  std::string source;
  for (uint8_t k = 0; k < 10; ++k) source += Testing::ts_packet(256, k, k == 0, char('a' + k));
  return source;
}

TEST(IndexReplay, Vdx2GroupIsInlineDataFollowedByTheReferencedBytes) {
  ScratchDir dir;
  const std::string source = source_stream();
  const std::string path = dir.write("source.ts", source);
  const std::string tables = Testing::ts_packet(0, 3, true, 'T');
  const std::string first = Testing::ts_packet(256, 9, true, 'F');
  const std::string index = Testing::vdx2_file({
      {188, 0, 2, 2, 0, 0, 0, tables},
      {188, 0, 8 | 4, 2, 1, 3 * 188, 2 * 188, first},
      {1500, 40, 1, 0, 0, 0, 0, ""},
  });
  std::istringstream in(index);
  std::ostringstream out;
  replay_index(in, IndexFormat::VDX2, path, out);
  EXPECT_EQ(out.str(), tables + first + source.substr(376, 564));
}

TEST(IndexReplay, Vdx2ReferenceWithoutItsFlagIsNotSent) {
  ScratchDir dir;
  const std::string path = dir.write("source.ts", source_stream());
  const std::string index = Testing::vdx2_file({{0, 0, 0, 0, 0, 188, 0, "x"}});
  std::istringstream in(index);
  std::ostringstream out;
  replay_index(in, IndexFormat::VDX2, path, out);
  EXPECT_EQ(out.str(), "x");
}

TEST(IndexReplay, Vdx2ReferencePastTheSourceEndFailsAfterWhatItHad) {
  ScratchDir dir;
  const std::string source = source_stream();
  const std::string path = dir.write("source.ts", source);
  const std::string index = Testing::vdx2_file({{0, 0, 4, 0, 0, 376, 9 * 188, ""}});
  std::istringstream in(index);
  std::ostringstream out;
  try {
    replay_index(in, IndexFormat::VDX2, path, out);
    FAIL() << "no failure";
  } catch (const DumpFailure& failure) {
    EXPECT_EQ(failure.status, DUMP_BAD_INDEX);
    EXPECT_EQ(failure.message, path + ": reference of 376 bytes at 1692 runs past its end");
  }
  EXPECT_EQ(out.str(), source.substr(9 * 188));
}

TEST(IndexReplay, Vdx2MissingSourceCannotBeOpened) {
  ScratchDir dir;
  std::istringstream in(Testing::vdx2_file({}));
  std::ostringstream out;
  try {
    replay_index(in, IndexFormat::VDX2, dir.file("gone.ts"), out);
    FAIL() << "no failure";
  } catch (const DumpFailure& failure) {
    EXPECT_EQ(failure.status, DUMP_CANT_OPEN);
    EXPECT_EQ(failure.message,
              "can't open source " + dir.file("gone.ts") + ": No such file or directory");
  }
}

TEST(IndexReplay, VdxSendsTheFrameDataOfEachBlockWithoutOpeningTheSource) {
  std::vector<Testing::VdxBlockBytes> blocks{{0, 0, {}, {}, "one"}, {0, 0, {}, {}, "two"}};
  std::istringstream in(Testing::vdx_file(65536, {}, blocks));
  std::ostringstream out;
  replay_index(in, IndexFormat::VDX, "/nonexistent/source.ts", out);
  EXPECT_EQ(out.str(), "onetwo");
}

}  // namespace
}  // namespace Veldrin::Tool
