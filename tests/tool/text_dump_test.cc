#include "tool/text_dump.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "foundation/channel/error.h"
#include "support/index_bytes.h"

namespace Veldrin::Tool {
namespace {

using Testing::Vdx2BlockBytes;
using Testing::VdxBlockBytes;

std::string vdx2_sample() {
  Vdx2BlockBytes tables{564, 12500, 3, 2, 0, 0, 0, "AB"};
  Vdx2BlockBytes frame{752, 12500, 12, 2, 1, 376, 940, ""};
  return Testing::vdx2_file({tables, frame}, 1, 64);
}

std::string text_of(const std::string& bytes, IndexFormat format, bool show_inline) {
  std::istringstream in(bytes);
  std::ostringstream out;
  dump_index_text(in, format, out, show_inline);
  return out.str();
}

TEST(TextDump, Vdx2ShowsTheHeaderThenEachBlockWithItsReference) {
  EXPECT_EQ(text_of(vdx2_sample(), IndexFormat::VDX2, false),
            "VDX2 file, flags 1, block size 64\n"
            "Index2 block[64]: NPT 12.5@564 NEW-NPT INTRA (0/2)\n"
            "Index2 block[64]: NPT 12.5@752 (1/2)\n"
            "  Ref data: 376@940\n");
}

TEST(TextDump, Vdx2InlineDataIsDumpedInHex) {
  EXPECT_EQ(text_of(vdx2_sample(), IndexFormat::VDX2, true),
            "VDX2 file, flags 1, block size 64\n"
            "Index2 block[64]: NPT 12.5@564 NEW-NPT INTRA (0/2)\n"
            "  Inline data (2):\n"
            "0000: 4142" +
                std::string(31, ' ') +
                " | AB\n"
                "Index2 block[64]: NPT 12.5@752 (1/2)\n"
                "  Ref data: 376@940\n");
}

TEST(TextDump, Vdx2CutInsideABlockFailsAfterTheWholeBlocks) {
  const std::string bytes = vdx2_sample();
  std::istringstream in(bytes.substr(0, bytes.size() - 10));
  std::ostringstream out;
  EXPECT_THROW(dump_index_text(in, IndexFormat::VDX2, out, false), Korvix::Channel::Error);
  EXPECT_EQ(out.str(),
            "VDX2 file, flags 1, block size 64\n"
            "Index2 block[64]: NPT 12.5@564 NEW-NPT INTRA (0/2)\n");
}

TEST(TextDump, VdxShowsHeaderTableAndLinkedBlocks) {
  std::vector<VdxBlockBytes> blocks{{500, 188, {}, {}, std::string(188, 'a')},
                                    {1000, 564, {}, {}, std::string(376, 'b')}};
  Testing::link_vdx_blocks(blocks, 16);
  const std::string bytes = Testing::vdx_file(65536, {{1, 500, 188}}, blocks);
  // Header page, then block 0 (head page, one data page), then block 1.
  EXPECT_EQ(text_of(bytes, IndexFormat::VDX, false),
            "VDX file, version 1, header size 4096, 2 blocks, precision 65536, 1 entries\n"
            "  Entry 0 for 0: block page 1, NPT 0.5@188\n"
            "Index block 0 at 4096: NPT 0.5@188, 188 bytes\n"
            "  Forward: 376\n"
            "Index block 1 at 12288: NPT 1@564, 376 bytes\n"
            "  Backward: 188\n");
}

}  // namespace
}  // namespace Veldrin::Tool
