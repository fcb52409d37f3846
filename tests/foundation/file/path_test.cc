#include "foundation/file/path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/scratch_dir.h"

namespace Korvix::File {
namespace {

// Each test works in a fresh directory, removed with everything in it at its end.
class PathTest : public ::testing::Test {
 protected:
  std::string in_dir(const std::string& name) const { return Path(scratch.path, name).path; }

  Veldrin::Testing::ScratchDir scratch;
};

TEST_F(PathTest, LengthOfMissingPathIsZero) {
  EXPECT_EQ(Path(in_dir("missing.ts")).length(), 0u);
}

TEST_F(PathTest, LengthOfPipeNameIsZeroUnlessSuchFileExists) {
  Path pipe(in_dir("pipe"));
  EXPECT_EQ(pipe.length(), 0u);
  ASSERT_TRUE(pipe.write_all(std::string(376, 'x')));
  EXPECT_EQ(pipe.length(), 376u);
}

TEST_F(PathTest, LengthIsSizeInBytes) {
  Path file(in_dir("a.ts"));
  ASSERT_TRUE(file.write_all("12345"));
  EXPECT_EQ(file.length(), 5u);
}

TEST_F(PathTest, ExistsAndIsDirTellFilesFromDirectories) {
  Path file(in_dir("f"));
  EXPECT_FALSE(file.exists());
  EXPECT_FALSE(file.is_dir());
  ASSERT_TRUE(file.touch(0644));
  EXPECT_TRUE(file.exists());
  EXPECT_FALSE(file.is_dir());
  EXPECT_TRUE(Path(scratch.path).exists());
  EXPECT_TRUE(Path(scratch.path).is_dir());
}

TEST_F(PathTest, ReadableAndWriteableFollowOpen) {
  Path file(in_dir("f"));
  EXPECT_FALSE(file.readable());
  EXPECT_FALSE(file.writeable());
  ASSERT_TRUE(file.touch(0644));
  EXPECT_TRUE(file.readable());
  EXPECT_TRUE(file.writeable());
  if (geteuid() != 0) {
    ASSERT_TRUE(file.set_mode(0444));
    EXPECT_TRUE(file.readable());
    EXPECT_FALSE(file.writeable());
  }
}

TEST_F(PathTest, FailedTestsGiveNeutralAnswers) {
  Path missing(in_dir("missing"));
  EXPECT_EQ(missing.last_modified(), 0);
  EXPECT_EQ(missing.mode(), 0u);
  EXPECT_EQ(missing.owner(), 0u);
  EXPECT_EQ(missing.group(), 0u);
  EXPECT_FALSE(missing.set_mode(0644));
  EXPECT_FALSE(missing.set_last_modified(1000));
  EXPECT_FALSE(missing.rename(Path(in_dir("other"))));
  EXPECT_FALSE(missing.erase());
  std::string text = "kept";
  EXPECT_FALSE(missing.read_all(text));
  EXPECT_EQ(text, "kept");
  EXPECT_FALSE(Path(in_dir("no/such/dir/file")).write_all("x"));
  EXPECT_FALSE(Path(in_dir("no/such/dir/file")).touch(0644));
}

TEST_F(PathTest, SetModeIsReadBackByMode) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.touch(0600));
  ASSERT_TRUE(file.set_mode(0640));
  EXPECT_EQ(file.mode() & 07777, 0640u);
  EXPECT_TRUE(S_ISREG(file.mode()));
}

TEST_F(PathTest, OwnerAndGroupAreThoseOfTheCreator) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.touch(0644));
  EXPECT_EQ(file.owner(), geteuid());
  EXPECT_EQ(file.group(), getegid());
}

TEST_F(PathTest, SetOwnerWithUnknownNameFails) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.touch(0644));
  EXPECT_FALSE(file.set_owner("no-such-user-vdx", group_name(getegid())));
  EXPECT_FALSE(file.set_owner(user_name(geteuid()), "no-such-group-vdx"));
}

TEST_F(PathTest, SetOwnerToOwnNamesWorks) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.touch(0644));
  std::string user = user_name(geteuid());
  std::string grp = group_name(getegid());
  if (user == "UNKNOWN" || grp == "UNKNOWN") GTEST_SKIP() << "no names for this user";
  EXPECT_TRUE(file.set_owner(user, grp));
}

TEST_F(PathTest, TouchEmptiesAnExistingFile) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.write_all("content"));
  ASSERT_EQ(file.length(), 7u);
  ASSERT_TRUE(file.touch(0644));
  EXPECT_TRUE(file.exists());
  EXPECT_EQ(file.length(), 0u);
}

TEST_F(PathTest, SetLastModifiedIsReadBack) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.touch(0644));
  ASSERT_TRUE(file.set_last_modified(1000000000));
  EXPECT_EQ(file.last_modified(), 1000000000);
}

TEST_F(PathTest, RenameMovesTheFile) {
  Path from(in_dir("from"));
  Path to(in_dir("to"));
  ASSERT_TRUE(from.write_all("abc"));
  ASSERT_TRUE(from.rename(to));
  EXPECT_FALSE(from.exists());
  EXPECT_EQ(to.length(), 3u);
}

TEST_F(PathTest, EraseRemovesFileAndWholeDirectory) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.touch(0644));
  EXPECT_TRUE(file.erase());
  EXPECT_FALSE(file.exists());

  Path sub(in_dir("sub dir"));
  ASSERT_EQ(mkdir(sub.path.c_str(), 0755), 0);
  ASSERT_TRUE(Path(sub.path, "inner").write_all("x"));
  EXPECT_TRUE(sub.erase());
  EXPECT_FALSE(sub.exists());
}

TEST_F(PathTest, ReadAllAppendsWholeFile) {
  Path file(in_dir("f"));
  std::string content;
  for (int i = 0; i < 10000; ++i) content.push_back(static_cast<char>(i * 7));
  ASSERT_TRUE(file.write_all(content));
  std::string text = "head:";
  ASSERT_TRUE(file.read_all(text));
  EXPECT_EQ(text, "head:" + content);
}

TEST_F(PathTest, WriteAllReplacesTheFile) {
  Path file(in_dir("f"));
  ASSERT_TRUE(file.write_all("a much longer first content"));
  ASSERT_TRUE(file.write_all("short"));
  std::string text;
  ASSERT_TRUE(file.read_all(text));
  EXPECT_EQ(text, "short");
}

TEST(Path, IsAbsoluteNeedsLeadingSlash) {
  EXPECT_TRUE(Path("/a").is_absolute());
  EXPECT_TRUE(Path("/").is_absolute());
  EXPECT_FALSE(Path("a/b").is_absolute());
  EXPECT_FALSE(Path("").is_absolute());
}

TEST(Path, ComponentsOfAbsoluteFileName) {
  Path path("/a/b.ts");
  EXPECT_EQ(path.last_component(), "b.ts");
  EXPECT_EQ(path.stem(), "b");
  EXPECT_EQ(path.extension(), "ts");
  EXPECT_EQ(path.parent(), "/a");
}

TEST(Path, SingleComponentIsItsOwnLastComponentWithEmptyParent) {
  Path path("a");
  EXPECT_EQ(path.last_component(), "a");
  EXPECT_EQ(path.parent(), "");
  EXPECT_EQ(path.stem(), "a");
  EXPECT_EQ(path.extension(), "");
}

TEST(Path, StemAndExtensionSplitAtLastDotOfLastComponent) {
  Path path("dir.d/x.tar.gz");
  EXPECT_EQ(path.stem(), "x.tar");
  EXPECT_EQ(path.extension(), "gz");
  Path no_dot("dir.d/file");
  EXPECT_EQ(no_dot.stem(), "file");
  EXPECT_EQ(no_dot.extension(), "");
}

TEST(Path, ParentOfRootLevelFileIsEmpty) {
  EXPECT_EQ(Path("/a").parent(), "");
}

TEST(Path, JoiningPutsOneSlashBetween) {
  EXPECT_EQ(Path("a/", "b").path, "a/b");
  EXPECT_EQ(Path("a", "b").path, "a/b");
  EXPECT_EQ(Path("", "b").path, "b");
}

TEST(Path, ResolveKeepsAbsoluteOther) {
  EXPECT_EQ(Path("/x/y/z.ts").resolve(Path("/abs/f")).path, "/abs/f");
}

TEST(Path, ResolveJoinsRelativeOtherToParent) {
  EXPECT_EQ(Path("/x/y/z.ts").resolve(Path("f.vdx")).path, "/x/y/f.vdx");
  EXPECT_EQ(Path("z.ts").resolve(Path("f.vdx")).path, "f.vdx");
}

TEST(Path, ResolveTakesOneLevelOffForEachLeadingDotDot) {
  EXPECT_EQ(Path("/x/y/z.ts").resolve(Path("../f")).path, "/x/f");
  EXPECT_EQ(Path("/x/y/z/t.ts").resolve(Path("../../w/f")).path, "/x/w/f");
}

TEST(Path, ResolveAboveTopLevelLosesTheLeadingSlash) {
  // The parent of "/x" is empty by the text arithmetic, and an empty start joins without "/".
  EXPECT_EQ(Path("/x/y/z.ts").resolve(Path("../../f")).path, "f");
}

TEST(Path, ResolveLeavesBareDotDotOfThreeCharacters) {
  EXPECT_EQ(Path("/x/y/z.ts").resolve(Path("../")).path, "/x/y/../");
}

TEST(Path, NamesOfUnknownNumbersAreUnknown) {
  EXPECT_EQ(user_name(4000000000u), "UNKNOWN");
  EXPECT_EQ(group_name(4000000000u), "UNKNOWN");
}

TEST(Path, NumbersOfUnknownNamesAreMinusOne) {
  EXPECT_EQ(user_id("no-such-user-vdx"), -1);
  EXPECT_EQ(group_id("no-such-group-vdx"), -1);
}

TEST(Path, RootIsUserZero) {
  EXPECT_EQ(user_name(0), "root");
  EXPECT_EQ(user_id("root"), 0);
}

TEST(Path, OctalTextBothWays) {
  EXPECT_EQ(int_to_octal(0755), "755");
  EXPECT_EQ(int_to_octal(0), "0");
  EXPECT_EQ(octal_to_int("644"), 0644u);
  EXPECT_EQ(octal_to_int(""), 0u);
  // The digits are not checked: '8' counts as eight.
  EXPECT_EQ(octal_to_int("18"), 16u);
}

}  // namespace
}  // namespace Korvix::File
