#include "tool/dump_options.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace Veldrin::Tool {
namespace {

// One parse of a command line whose program name is "vdx2dump".
struct Parsed {
  DumpParse parse;
  DumpOptions options;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<std::string> args) {
  args.insert(args.begin(), "vdx2dump");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  Parsed result;
  std::ostringstream out;
  std::ostringstream err;
  result.parse =
      parse_dump_options(static_cast<int>(argv.size()), argv.data(), result.options, out, err);
  result.out = out.str();
  result.err = err.str();
  return result;
}

std::string usage() {
  std::ostringstream out;
  print_dump_usage(out, "vdx2dump");
  return out.str();
}

TEST(DumpOptions, UsageNamesTheProgramAndEveryOption) {
  const std::string text = usage();
  EXPECT_EQ(text.rfind("Usage:\n  vdx2dump [options] <index file>\n", 0), 0u) << text;
  for (const char* option : {"-?  --help", "-x  --inline", "-j  --json", "-a  --at <seconds>",
                             "-c  --check <source>", "-r  --replay <source>"})
    EXPECT_NE(text.find(option), std::string::npos) << option;
}

TEST(DumpOptions, HelpPrintsTheUsageOnStandardOutputAndEndsWithZero) {
  for (const char* help : {"-?", "--help"}) {
    const Parsed result = parse({"x.vdx2", help, "--bogus"});
    EXPECT_TRUE(result.parse.finished);
    EXPECT_EQ(result.parse.status, DUMP_OK);
    EXPECT_EQ(result.out, usage());
    EXPECT_EQ(result.err, "");
  }
}

TEST(DumpOptions, IndexAloneIsTheTextDump) {
  const Parsed result = parse({"x.vdx2"});
  EXPECT_FALSE(result.parse.finished);
  EXPECT_EQ(result.options.mode, DumpMode::DUMP);
  EXPECT_EQ(result.options.index, "x.vdx2");
  EXPECT_FALSE(result.options.show_inline);
  EXPECT_EQ(result.out + result.err, "");
}

TEST(DumpOptions, InlineMayFollowTheIndexName) {
  EXPECT_TRUE(parse({"x.vdx2", "-x"}).options.show_inline);
  EXPECT_TRUE(parse({"--inline", "x.vdx2"}).options.show_inline);
}

TEST(DumpOptions, JsonAsksForTheDocumentOfTheDump) {
  for (const char* json : {"-j", "--json"}) {
    const Parsed result = parse({json, "x.vdx2"});
    EXPECT_FALSE(result.parse.finished);
    EXPECT_TRUE(result.options.json);
    EXPECT_EQ(result.options.mode, DumpMode::DUMP);
  }
}

TEST(DumpOptions, AtTakesATimeInSeconds) {
  for (const char* at : {"-a", "--at"}) {
    const Parsed result = parse({at, "12.5", "x.vdx2"});
    EXPECT_FALSE(result.parse.finished);
    EXPECT_EQ(result.options.mode, DumpMode::AT);
    EXPECT_EQ(result.options.seconds, 12.5);
    EXPECT_EQ(result.options.index, "x.vdx2");
  }
  EXPECT_TRUE(parse({"--at", "1", "-j", "x.vdx2"}).options.json);
}

TEST(DumpOptions, AtTakesANegativeTime) {
  const Parsed result = parse({"x.vdx2", "--at", "-3"});
  EXPECT_FALSE(result.parse.finished);
  EXPECT_EQ(result.options.seconds, -3.0);
}

TEST(DumpOptions, AtWithoutATimeIsABadCommandLine) {
  const Parsed result = parse({"x.vdx2", "--at"});
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: --at needs a time in seconds\n");
}

TEST(DumpOptions, AtWithSomethingElseThanATimeIsABadCommandLine) {
  const Parsed result = parse({"-a", "12s", "x.vdx2"});
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: -a needs a time in seconds, not 12s\n");
}

TEST(DumpOptions, AtWithReplayIsABadCommandLine) {
  const Parsed result = parse({"-a", "1", "-r", "in.ts", "x.vdx2"});
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: --replay, --at and --check don't go together; choose one\n");
}

TEST(DumpOptions, SecondsAreDecimalNumbers) {
  double seconds = -1.0;
  EXPECT_TRUE(parse_seconds("0", seconds));
  EXPECT_EQ(seconds, 0.0);
  EXPECT_TRUE(parse_seconds("12.5", seconds));
  EXPECT_EQ(seconds, 12.5);
  EXPECT_TRUE(parse_seconds("+2", seconds));
  EXPECT_EQ(seconds, 2.0);
  EXPECT_TRUE(parse_seconds("-0.25", seconds));
  EXPECT_EQ(seconds, -0.25);
  EXPECT_TRUE(parse_seconds("1e3", seconds));
  EXPECT_EQ(seconds, 1000.0);
  EXPECT_TRUE(parse_seconds(".5", seconds));
  EXPECT_EQ(seconds, 0.5);
}

TEST(DumpOptions, SecondsRefuseWhatIsNoFiniteDecimalNumber) {
  double seconds = 7.0;
  for (const char* text : {"", " 1", "1 ", "1s", "abc", "inf", "-inf", "nan", "0x10", "+-1", "++1",
                           "1e999", "+", "."}) {
    EXPECT_FALSE(parse_seconds(text, seconds)) << text;
  }
  EXPECT_EQ(seconds, 7.0);
}

TEST(DumpOptions, CheckTakesTheSourceName) {
  for (const char* check : {"-c", "--check"}) {
    const Parsed result = parse({"x.vdx2", check, "in.ts"});
    EXPECT_FALSE(result.parse.finished);
    EXPECT_EQ(result.options.mode, DumpMode::CHECK);
    EXPECT_EQ(result.options.source, "in.ts");
    EXPECT_EQ(result.options.index, "x.vdx2");
  }
}

TEST(DumpOptions, CheckWithoutItsSourceIsABadCommandLine) {
  const Parsed result = parse({"x.vdx2", "--check"});
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: --check needs the source file\n");
}

TEST(DumpOptions, CheckWithAtOrJsonIsABadCommandLine) {
  EXPECT_EQ(parse({"-c", "in.ts", "-a", "1", "x.vdx2"}).err,
            "vdx2dump: --replay, --at and --check don't go together; choose one\n");
  EXPECT_EQ(parse({"-c", "in.ts", "-j", "x.vdx2"}).err,
            "vdx2dump: --json goes with the dump and --at only\n");
}

TEST(DumpOptions, JsonWithReplayIsABadCommandLine) {
  const Parsed result = parse({"x.vdx2", "-r", "in.ts", "--json"});
  EXPECT_TRUE(result.parse.finished);
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: --json goes with the dump and --at only\n");
}

TEST(DumpOptions, ReplayTakesTheSourceName) {
  const Parsed result = parse({"-r", "in.ts", "x.vdx2"});
  EXPECT_FALSE(result.parse.finished);
  EXPECT_EQ(result.options.mode, DumpMode::REPLAY);
  EXPECT_EQ(result.options.source, "in.ts");
  EXPECT_EQ(result.options.index, "x.vdx2");
}

TEST(DumpOptions, ReplayWithoutItsSourceIsABadCommandLine) {
  const Parsed result = parse({"x.vdx2", "--replay"});
  EXPECT_TRUE(result.parse.finished);
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: --replay needs the source file\n");
}

TEST(DumpOptions, UnknownOptionPrintsItsNameAndTheUsage) {
  const Parsed result = parse({"-z", "x.vdx2"});
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: unknown option -z\n" + usage());
}

TEST(DumpOptions, SecondIndexNameIsABadCommandLine) {
  const Parsed result = parse({"a.vdx2", "b.vdx2"});
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.err, "vdx2dump: only one index file, please: b.vdx2\n");
}

TEST(DumpOptions, NoIndexNamePrintsTheUsageOnStandardError) {
  const Parsed result = parse({"-x"});
  EXPECT_EQ(result.parse.status, DUMP_USAGE);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, usage());
}

TEST(DumpOptions, ADashAloneIsAnIndexName) {
  EXPECT_EQ(parse({"-"}).options.index, "-");
}

}  // namespace
}  // namespace Veldrin::Tool
