#include "tool/index_format.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/index_bytes.h"
#include "support/scratch_dir.h"
#include "tool/dump_failure.h"

namespace Veldrin::Tool {
namespace {

using Testing::ScratchDir;

DumpFailure failure_of(const std::string& path) {
  std::ifstream in;
  try {
    open_index(in, path);
  } catch (const DumpFailure& failure) {
    return failure;
  }
  return DumpFailure{DUMP_OK, ""};
}

TEST(IndexFormat, Vdx2MagicGivesVdx2AndTheStreamStandsAtTheStart) {
  ScratchDir dir;
  const std::string path = dir.write("a.vdx2", Testing::vdx2_header(0, 256));
  std::ifstream in;
  EXPECT_EQ(open_index(in, path), IndexFormat::VDX2);
  EXPECT_EQ(in.tellg(), 0);
  EXPECT_EQ(in.get(), 'V');
}

TEST(IndexFormat, VdxMagicGivesVdx) {
  ScratchDir dir;
  const std::string path = dir.write("a.vdx", Testing::vdx_file(65536, {}, {}));
  std::ifstream in;
  EXPECT_EQ(open_index(in, path), IndexFormat::VDX);
}

TEST(IndexFormat, NamesAreThoseOfTheDumps) {
  EXPECT_STREQ(index_format_name(IndexFormat::VDX2), "VDX2");
  EXPECT_STREQ(index_format_name(IndexFormat::VDX), "VDX");
}

TEST(IndexFormat, OtherMagicIsNotAnIndex) {
  ScratchDir dir;
  const DumpFailure failure = failure_of(dir.write("x.ts", "VDX3 and more"));
  EXPECT_EQ(failure.status, DUMP_BAD_INDEX);
  EXPECT_EQ(failure.message, dir.file("x.ts") + " is neither a VDX2 nor a VDX index file");
}

TEST(IndexFormat, FileShorterThanAMagicIsNotAnIndex) {
  ScratchDir dir;
  EXPECT_EQ(failure_of(dir.write("short", "VDX")).status, DUMP_BAD_INDEX);
  EXPECT_EQ(failure_of(dir.write("empty", "")).status, DUMP_BAD_INDEX);
}

TEST(IndexFormat, MissingFileCannotBeOpened) {
  ScratchDir dir;
  const DumpFailure failure = failure_of(dir.file("missing.vdx2"));
  EXPECT_EQ(failure.status, DUMP_CANT_OPEN);
  EXPECT_EQ(failure.message,
            "can't open " + dir.file("missing.vdx2") + ": No such file or directory");
}

}  // namespace
}  // namespace Veldrin::Tool
