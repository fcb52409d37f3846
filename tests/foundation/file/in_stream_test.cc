#include "foundation/file/in_stream.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/file/out_stream.h"
#include "foundation/file/path.h"
#include "support/scratch_dir.h"

namespace Korvix::File {
namespace {

TEST(InStream, ReadsBytesUnchanged) {
  Veldrin::Testing::ScratchDir dir;
  const std::string name = dir.file("stream");
  std::string bytes("\r\n\0\x1a\xff", 5);
  ASSERT_TRUE(Path(name).write_all(bytes));
  InStream in(name);
  ASSERT_TRUE(in.is_open());
  char got[8] = {};
  in.read(got, 8);
  EXPECT_EQ(in.gcount(), 5);
  EXPECT_EQ(std::string(got, 5), bytes);
}

TEST(InStream, MissingFileIsFailed) {
  InStream in(Path("/tmp/vdx-no-such-dir/none"));
  EXPECT_FALSE(in.is_open());
  EXPECT_TRUE(in.fail());
}

TEST(OutStream, TruncatesAndWritesBinary) {
  Veldrin::Testing::ScratchDir dir;
  const std::string name = dir.file("stream");
  ASSERT_TRUE(Path(name).write_all("0123456789"));
  {
    OutStream out(Path{name});
    ASSERT_TRUE(out.is_open());
    out.write("\n\0\n", 3);
  }
  std::string text;
  ASSERT_TRUE(Path(name).read_all(text));
  EXPECT_EQ(text, std::string("\n\0\n", 3));
}

}  // namespace
}  // namespace Korvix::File
