#include "tool/dump_run.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/index_bytes.h"
#include "support/scratch_dir.h"

namespace Veldrin::Tool {
namespace {

using Testing::ScratchDir;

struct Ran {
  int status = -1;
  std::string out;
  std::string err;
};

Ran run(std::vector<std::string> args) {
  args.insert(args.begin(), "vdx2dump");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  std::ostringstream out;
  std::ostringstream err;
  Ran result;
  result.status = run_vdx2dump(static_cast<int>(argv.size()), argv.data(), out, err);
  result.out = out.str();
  result.err = err.str();
  return result;
}

TEST(DumpRun, DumpOfAGoodIndexEndsWithZero) {
  ScratchDir dir;
  const std::string path = dir.write("a.vdx2", Testing::vdx2_file({{0, 1500, 1, 0, 0, 0, 0, ""}}));
  const Ran result = run({path});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "VDX2 file, flags 0, block size 256\n"
            "Index2 block[256]: NPT 1.5@0 NEW-NPT\n");
  EXPECT_EQ(result.err, "");
}

TEST(DumpRun, DamagedIndexEndsWithThreeAfterWhatCouldBeShown) {
  ScratchDir dir;
  std::string bytes = Testing::vdx2_file({{0, 1500, 1, 0, 0, 0, 0, ""}, {}});
  bytes.resize(bytes.size() - 1);  // inside the padding of the second block
  const std::string path = dir.write("cut.vdx2", bytes);
  const Ran result = run({path});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out,
            "VDX2 file, flags 0, block size 256\n"
            "Index2 block[256]: NPT 1.5@0 NEW-NPT\n");
  EXPECT_EQ(result.err, "vdx2dump: " + path + ": damaged or cut short (EOF)\n");
}

TEST(DumpRun, FileThatIsNoIndexEndsWithThree) {
  ScratchDir dir;
  const std::string path = dir.write("a.ts", Testing::ts_packet(0, 0));
  const Ran result = run({path});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "vdx2dump: " + path + " is neither a VDX2 nor a VDX index file\n");
}

TEST(DumpRun, MissingIndexEndsWithTwo) {
  ScratchDir dir;
  const Ran result = run({dir.file("none.vdx2")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err,
            "vdx2dump: can't open " + dir.file("none.vdx2") + ": No such file or directory\n");
}

TEST(DumpRun, BadCommandLineEndsWithOne) {
  EXPECT_EQ(run({}).status, 1);
  EXPECT_EQ(run({"--nothing", "x"}).status, 1);
}

TEST(DumpRun, StandardOutputThatFailsEndsWithTwo) {
  ScratchDir dir;
  const std::string path = dir.write("a.vdx2", Testing::vdx2_file({}));
  const std::vector<const char*> argv{"vdx2dump", path.c_str()};
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  std::ostringstream err;
  EXPECT_EQ(run_vdx2dump(2, argv.data(), out, err), 2);
  EXPECT_EQ(err.str(), "vdx2dump: can't write to standard output\n");
}

}  // namespace
}  // namespace Veldrin::Tool
