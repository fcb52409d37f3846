#include <gtest/gtest.h>

#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/dump_support.h"

namespace Veldrin::Testing {
namespace {

// The options that a tool's usage text lists: the words that begin with "-" at the start of
// its option lines, such as "-f" and "--format" of "  -f  --format <fmt>   Format to use".
std::vector<std::string> usage_options(const std::string& usage) {
  std::vector<std::string> options;
  for (const std::string& line : split_lines(usage)) {
    if (line.rfind("  -", 0) != 0) continue;
    std::istringstream words(line);
    std::string word;
    for (int i = 0; i < 2 && words >> word; ++i)
      if (word[0] == '-') options.push_back(word);
  }
  return options;
}

// The page as mandoc renders it for a terminal, without the overstrikes of bold and underline.
std::string rendered(const std::string& page) {
  RunRequest request;
  request.executable = find_program("mandoc");
  request.args = {"-T", "ascii", page};
  const RunResult result = run_program(request);
  EXPECT_EQ(result.status, 0) << result.err;
  std::string text;
  for (size_t i = 0; i < result.out.size(); ++i) {
    if (i + 1 < result.out.size() && result.out[i + 1] == '\b') {
      ++i;  // the character and its backspace; what follows is the one that shows
      continue;
    }
    text += result.out[i];
  }
  return text;
}

bool option_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
}

// The option stands in the text as a word of its own.
bool shows_option(const std::string& text, const std::string& option) {
  for (size_t at = text.find(option); at != std::string::npos; at = text.find(option, at + 1)) {
    const bool starts = at == 0 || !option_char(text[at - 1]);
    const size_t end = at + option.size();
    const bool ends = end == text.size() || !option_char(text[end]);
    if (starts && ends) return true;
  }
  return false;
}

void expect_page_covers_usage(const std::string& tool) {
  VDX_REQUIRE_PROGRAM("mandoc");
  RunRequest request;
  request.executable = binary_path(tool);
  request.args = {"--help"};
  const RunResult help = run_program(request);
  ASSERT_EQ(help.status, 0);
  const std::vector<std::string> options = usage_options(help.out);
  ASSERT_GE(options.size(), 10u) << help.out;
  const std::string text = rendered(source_path("man/" + tool + ".1"));
  for (const std::string& option : options)
    EXPECT_TRUE(shows_option(text, option)) << tool << ".1 doesn't show " << option;
  for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "EXIT STATUS", "EXAMPLES"})
    EXPECT_NE(text.find(std::string("\n") + section + "\n"), std::string::npos) << section;
}

void expect_lint_clean(const std::string& tool) {
  VDX_REQUIRE_PROGRAM("mandoc");
  RunRequest request;
  request.executable = find_program("mandoc");
  // From the folder of the pages, where the pages they refer to are found as they are once
  // installed side by side.
  request.working_dir = source_path("man");
  request.args = {"-T", "lint", "-W", "all", tool + ".1"};
  const RunResult result = run_program(request);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out + result.err, "");
}

TEST(ManPage, UsageOptionsAreReadFromOptionLines) {
  EXPECT_EQ(usage_options("Usage:\n  x [options]\n  -q  --quiet          More quiet\n"
                          "  -f  --format <fmt>   Format\n  -In --index-links <n>  Set\n"
                          "                           Can be issued -x\n"),
            (std::vector<std::string>{"-q", "--quiet", "-f", "--format", "-In", "--index-links"}));
}

TEST(ManPage, OptionIsFoundAsAWordOnly) {
  EXPECT_TRUE(shows_option("     -q, --quiet\n", "-q"));
  EXPECT_TRUE(shows_option("     -q, --quiet\n", "--quiet"));
  EXPECT_FALSE(shows_option("     --quiet\n", "-q"));
  EXPECT_FALSE(shows_option("     -qx\n", "-q"));
  EXPECT_TRUE(shows_option("-?, --help", "-?"));
}

TEST(ManPage, VdxindexPageShowsEveryOptionOfTheUsage) {
  expect_page_covers_usage("vdxindex");
}

TEST(ManPage, Vdx2dumpPageShowsEveryOptionOfTheUsage) {
  expect_page_covers_usage("vdx2dump");
}

TEST(ManPage, VdxdecryptPageShowsEveryOptionOfTheUsage) {
  expect_page_covers_usage("vdxdecrypt");
}

TEST(ManPage, VdxindexPageIsLintClean) {
  expect_lint_clean("vdxindex");
}

TEST(ManPage, Vdx2dumpPageIsLintClean) {
  expect_lint_clean("vdx2dump");
}

TEST(ManPage, VdxdecryptPageIsLintClean) {
  expect_lint_clean("vdxdecrypt");
}

TEST(ManPage, ManRendersEveryPageWithoutAWord) {
  VDX_REQUIRE_PROGRAM("man");
  for (const std::string tool : {"vdxindex", "vdx2dump", "vdxdecrypt"}) {
    RunRequest request;
    request.executable = find_program("man");
    request.args = {"-l", "-P", "cat", source_path("man/" + tool + ".1")};
    const RunResult result = run_program(request);
    EXPECT_EQ(result.status, 0) << tool;
    EXPECT_EQ(result.err, "") << tool;
    EXPECT_NE(result.out.find("NAME"), std::string::npos) << tool;
  }
}

}  // namespace
}  // namespace Veldrin::Testing
