#include "foundation/text/glob.h"

#include <gtest/gtest.h>

namespace Korvix::Text {
namespace {

TEST(Glob, StarSpansAnyRun) {
  EXPECT_TRUE(glob_match("a*c", "abbc", true));
  EXPECT_TRUE(glob_match("a*c", "ac", true));
  EXPECT_FALSE(glob_match("a*c", "abbd", true));
  EXPECT_FALSE(glob_match("a*c", "abbcd", true));
}

TEST(Glob, CaseMattersOnlyWhenCased) {
  EXPECT_FALSE(glob_match("A*C", "abbc", true));
  EXPECT_TRUE(glob_match("A*C", "abbc", false));
  EXPECT_TRUE(glob_match("abc", "ABC", false));
}

TEST(Glob, RangeSetMatchesMember) {
  EXPECT_TRUE(glob_match("[a-c]x", "bx", true));
  EXPECT_TRUE(glob_match("[a-c]x", "ax", true));
  EXPECT_TRUE(glob_match("[a-c]x", "cx", true));
  EXPECT_FALSE(glob_match("[a-c]x", "dx", true));
}

TEST(Glob, NegatedSetRefusesMember) {
  EXPECT_FALSE(glob_match("[!a-c]x", "bx", true));
  EXPECT_TRUE(glob_match("[!a-c]x", "dx", true));
}

TEST(Glob, BracketWithoutCloseIsOrdinary) {
  EXPECT_TRUE(glob_match("[x", "[x", true));
  EXPECT_FALSE(glob_match("[x", "x", true));
}

TEST(Glob, QuotedStarIsLiteral) {
  EXPECT_TRUE(glob_match("\\*", "*", true));
  EXPECT_FALSE(glob_match("\\*", "a", true));
}

TEST(Glob, StarAlonePassesEveryText) {
  EXPECT_TRUE(glob_match("*", "", true));
  EXPECT_TRUE(glob_match("*", "anything at all", true));
  EXPECT_TRUE(glob_match("ab*", "ab", true));
}

TEST(Glob, EmptyPatternMatchesOnlyEmptyText) {
  EXPECT_TRUE(glob_match("", "", true));
  EXPECT_FALSE(glob_match("", "a", true));
}

TEST(Glob, QuestionMarkTakesOneCharacterButNotTheEnd) {
  EXPECT_TRUE(glob_match("a?c", "abc", true));
  EXPECT_FALSE(glob_match("a?c", "ac", true));
  EXPECT_FALSE(glob_match("?", "", true));
}

TEST(Glob, StarBacktracksOverRepeatedCharacter) {
  EXPECT_TRUE(glob_match("*a", "banana", true));
  EXPECT_TRUE(glob_match("*an?", "banana", true));
  EXPECT_TRUE(glob_match("b*n*a", "banana", true));
  EXPECT_FALSE(glob_match("*x", "banana", true));
}

TEST(Glob, StarFollowedBySpecialCharacters) {
  EXPECT_TRUE(glob_match("*?", "a", true));
  EXPECT_FALSE(glob_match("*?", "", true));
  EXPECT_TRUE(glob_match("*[0-9]", "abc7", true));
  EXPECT_TRUE(glob_match("**c", "abc", true));
  EXPECT_TRUE(glob_match("*\\*", "ab*", true));
  EXPECT_FALSE(glob_match("*\\*", "ab", true));
}

TEST(Glob, StarScanIsFoldedWhenUncased) {
  EXPECT_TRUE(glob_match("*B", "aab", false));
  EXPECT_FALSE(glob_match("*B", "aab", true));
}

TEST(Glob, SetMembersAreFoldedWhenUncased) {
  EXPECT_TRUE(glob_match("[A-C]", "b", false));
  EXPECT_FALSE(glob_match("[A-C]", "b", true));
  EXPECT_TRUE(glob_match("[x]", "X", false));
}

TEST(Glob, SetWithSingleMembersAndQuotes) {
  EXPECT_TRUE(glob_match("[abc]", "b", true));
  EXPECT_FALSE(glob_match("[abc]", "d", true));
  EXPECT_TRUE(glob_match("[\\]]", "]", true));
  EXPECT_TRUE(glob_match("[a\\-c]", "-", true));
  EXPECT_FALSE(glob_match("[a\\-c]", "b", true));
}

TEST(Glob, HyphenBeforeCloseIsOrdinaryMember) {
  EXPECT_TRUE(glob_match("[a-]", "-", true));
  EXPECT_TRUE(glob_match("[a-]", "a", true));
  EXPECT_FALSE(glob_match("[a-]", "b", true));
}

TEST(Glob, NormalSetFailsAtEndOfText) {
  EXPECT_FALSE(glob_match("a[b]", "a", true));
}

TEST(Glob, NegatedSetPassesAtEndOfText) {
  EXPECT_TRUE(glob_match("a[!b]", "a", true));
  EXPECT_TRUE(glob_match("[!b]", "", true));
  EXPECT_FALSE(glob_match("a[!b]x", "a", true));
}

TEST(Glob, BackslashQuotesAnyCharacter) {
  EXPECT_TRUE(glob_match("a\\?", "a?", true));
  EXPECT_FALSE(glob_match("a\\?", "ab", true));
  EXPECT_TRUE(glob_match("\\[x]", "[x]", true));
}

TEST(Glob, TrailingBackslashMatchesEndOfText) {
  EXPECT_TRUE(glob_match("a\\", "a", true));
  EXPECT_FALSE(glob_match("a\\", "ab", true));
}

TEST(Glob, HighBytesCompareAsThemselves) {
  EXPECT_TRUE(glob_match("\xC4*", "\xC4xyz", false));
  EXPECT_TRUE(glob_match("[\x80-\xFF]", "\xE9", true));
}

}  // namespace
}  // namespace Korvix::Text
