#include "foundation/log/pattern_filter.h"

#include <gtest/gtest.h>

#include "foundation/log/capturing_channel.h"

namespace Korvix::Log {
namespace {

std::vector<std::string> passed(const std::string& pattern, const std::vector<std::string>& lines) {
  CapturingChannel sink;
  PatternFilter filter(sink, pattern);
  for (const std::string& line : lines) {
    Message message{2, Stamp(), line};
    filter.log(message);
  }
  std::vector<std::string> texts;
  for (const Message& message : sink.messages) texts.push_back(message.text);
  return texts;
}

TEST(PatternFilter, StarPassesEveryLineEmptyIncluded) {
  EXPECT_EQ(passed("*", {"", "a", "Indexing pipe"}),
            (std::vector<std::string>{"", "a", "Indexing pipe"}));
}

TEST(PatternFilter, PassesOnlyMatchingLines) {
  EXPECT_EQ(passed("Index*", {"Indexing pipe into -.vdx2", "Done", "Index"}),
            (std::vector<std::string>{"Indexing pipe into -.vdx2", "Index"}));
}

TEST(PatternFilter, CaseIsSignificant) {
  EXPECT_EQ(passed("done", {"Done", "done", "DONE"}), (std::vector<std::string>{"done"}));
}

TEST(PatternFilter, PatternMustCoverTheWholeLine) {
  EXPECT_EQ(passed("Done", {"Done.", "Done"}), (std::vector<std::string>{"Done"}));
}

TEST(PatternFilter, ForwardsTheMessageUnchanged) {
  CapturingChannel sink;
  PatternFilter filter(sink, "?*");
  Message message{3, Stamp(9), "text"};
  filter.log(message);
  ASSERT_EQ(sink.addresses.size(), 1u);
  EXPECT_EQ(sink.addresses[0], &message);
  EXPECT_EQ(sink.messages[0].level, 3);
  EXPECT_EQ(sink.messages[0].text, "text");
}

}  // namespace
}  // namespace Korvix::Log
