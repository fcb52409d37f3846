#include "foundation/file/in_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "foundation/file/out_stream.h"
#include "foundation/file/path.h"

namespace Korvix::File {
namespace {

std::string temp_name() {
  char name[] = "/tmp/vdx_stream_test_XXXXXX";
  int fd = mkstemp(name);
  if (fd >= 0) close(fd);
  return name;
}

TEST(InStream, ReadsBytesUnchanged) {
  std::string name = temp_name();
  std::string bytes("\r\n\0\x1a\xff", 5);
  ASSERT_TRUE(Path(name).write_all(bytes));
  InStream in(name);
  ASSERT_TRUE(in.is_open());
  char got[8] = {};
  in.read(got, 8);
  EXPECT_EQ(in.gcount(), 5);
  EXPECT_EQ(std::string(got, 5), bytes);
  Path(name).erase();
}

TEST(InStream, MissingFileIsFailed) {
  InStream in(Path("/tmp/vdx-no-such-dir/none"));
  EXPECT_FALSE(in.is_open());
  EXPECT_TRUE(in.fail());
}

TEST(OutStream, TruncatesAndWritesBinary) {
  std::string name = temp_name();
  ASSERT_TRUE(Path(name).write_all("0123456789"));
  {
    OutStream out(Path{name});
    ASSERT_TRUE(out.is_open());
    out.write("\n\0\n", 3);
  }
  std::string text;
  ASSERT_TRUE(Path(name).read_all(text));
  EXPECT_EQ(text, std::string("\n\0\n", 3));
  Path(name).erase();
}

}  // namespace
}  // namespace Korvix::File
