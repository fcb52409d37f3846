#include "tool/options.h"

#include <gtest/gtest.h>

#include "support/usage_text.h"

#include <sstream>
#include <string>
#include <vector>

namespace Veldrin::Tool {
namespace {

// One parse of a command line, with what went to each stream.
struct Parsed {
  Settings settings;
  ParseOutcome outcome;
  bool named = false;  // take_names found an input name
  std::string out;
  std::string err;
};

Parsed parse(const std::vector<std::string>& args) {
  std::vector<const char*> argv{"vdxindex"};
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  argv.push_back(nullptr);
  int argc = static_cast<int>(argv.size()) - 1;
  Parsed parsed;
  std::ostringstream out, err;
  parsed.outcome = parse_options(argc, argv.data(), parsed.settings, out, err);
  if (!parsed.outcome.finished)
    parsed.named = take_names(argc, argv.data(), parsed.outcome.next, parsed.settings);
  parsed.out = out.str();
  parsed.err = err.str();
  return parsed;
}

std::string usage_for(const std::string& program) {
  std::ostringstream out;
  print_usage(out, program);
  return out.str();
}

TEST(Options, DefaultsAreThoseOfAPlainRun) {
  Settings settings;
  EXPECT_EQ(settings.log_level, 2);
  EXPECT_EQ(settings.format, 1);
  EXPECT_EQ(settings.index_links, 16);
  EXPECT_EQ(settings.index_precision, 65536);
  EXPECT_EQ(settings.index_flags, 0);
  EXPECT_EQ(settings.index_block_size, 256);
  EXPECT_FALSE(settings.external_frames);
  EXPECT_EQ(settings.external_file, "");
  EXPECT_EQ(settings.offset_file, "");
  EXPECT_FALSE(settings.encrypt);
  EXPECT_EQ(settings.encrypt_file, "");
  EXPECT_EQ(settings.key_text, "");
  EXPECT_TRUE(settings.key_encrypt_files.empty());
  EXPECT_EQ(settings.ca_pid, 0);
  EXPECT_FALSE(settings.dump);
  EXPECT_FALSE(settings.seek_only);
  EXPECT_FALSE(settings.pcr_only);
  EXPECT_TRUE(settings.include_tables);
  EXPECT_FALSE(settings.trim_pmt);
  EXPECT_EQ(settings.start_offset, 0u);
}

TEST(Options, UsageTextIsExactWithTheProgramNameAsGiven) {
  const std::vector<std::string> expected = Veldrin::Testing::expected_usage("./some/prog");
  std::string text;
  for (const std::string& line : expected) text += line + "\n";
  EXPECT_EQ(usage_for("./some/prog"), text);
}

TEST(Options, HelpPrintsUsageAndEndsWithStatusZero) {
  Parsed parsed = parse({"-?", "in.ts"});
  EXPECT_TRUE(parsed.outcome.finished);
  EXPECT_EQ(parsed.outcome.status, 0);
  EXPECT_EQ(parsed.out, usage_for("vdxindex"));
  EXPECT_EQ(parsed.err, "");
}

TEST(Options, LongHelpAfterOtherOptionsActsAtOnceWithoutLookingFurther) {
  Parsed parsed = parse({"-q", "--help", "-x", "-f", "xyz"});
  EXPECT_TRUE(parsed.outcome.finished);
  EXPECT_EQ(parsed.outcome.status, 0);
  EXPECT_EQ(parsed.out, usage_for("vdxindex"));
  EXPECT_EQ(parsed.err, "");
}

TEST(Options, FormatIsFoldedToLowerCase) {
  for (const char* name : {"VDX2", "Vdx2", "vdx2", "vDX2"}) {
    Parsed parsed = parse({"-f", "vdx", "-f", name, "in.ts"});
    EXPECT_EQ(parsed.settings.format, 1) << name;
    EXPECT_EQ(parsed.err, "") << name;
  }
  for (const char* name : {"VDX", "vdx", "Vdx"}) {
    Parsed parsed = parse({"--format", name, "in.ts"});
    EXPECT_EQ(parsed.settings.format, 0) << name;
  }
}

TEST(Options, UnknownFormatNamesTheCurrentNumberAndEndsWithStatusTwo) {
  Parsed parsed = parse({"-f", "xyz", "in.ts"});
  EXPECT_TRUE(parsed.outcome.finished);
  EXPECT_EQ(parsed.outcome.status, 2);
  EXPECT_EQ(parsed.err, "Unknown format 1 specified\n");
  EXPECT_EQ(parsed.out, "");

  parsed = parse({"-f", "vdx", "-f", "xyz", "in.ts"});
  EXPECT_EQ(parsed.outcome.status, 2);
  EXPECT_EQ(parsed.err, "Unknown format 0 specified\n");
}

TEST(Options, FormatWithAnAccentedCapitalIsUnknown) {
  // Bytes above 127 are folded as unsigned values and match nothing.
  Parsed parsed = parse({"-f", "VDX\xC9", "in.ts"});
  EXPECT_EQ(parsed.outcome.status, 2);
  EXPECT_EQ(parsed.err, "Unknown format 1 specified\n");
}

TEST(Options, OptionNeedingAnArgumentAtTheEndIsAnUnknownOption) {
  Parsed parsed = parse({"-f"});
  EXPECT_FALSE(parsed.outcome.finished);
  EXPECT_EQ(parsed.err, "Unknown option -f ignored\n");
  EXPECT_EQ(parsed.outcome.next, 2);
  EXPECT_FALSE(parsed.named);
  EXPECT_EQ(parsed.settings.format, 1);

  for (const char* name : {"-f",  "--format",
                           "-e",  "--encrypt",
                           "-c",  "--ca-pid",
                           "-O",  "--offset-file",
                           "-Is", "--index-sync-file",
                           "-In", "--index-links",
                           "-Ip", "--index-precision",
                           "-If", "--index-flags",
                           "-Ib", "--index-blocksize",
                           "-IX", "--index-external-file",
                           "-Ek", "--key",
                           "-Ee", "--key-encrypt"}) {
    Parsed last = parse({"-q", name});
    EXPECT_EQ(last.err, std::string("Unknown option ") + name + " ignored\n");
    EXPECT_EQ(last.settings.log_level, 1) << name;
    EXPECT_FALSE(last.settings.encrypt) << name;
    EXPECT_FALSE(last.settings.external_frames) << name;
  }
}

TEST(Options, UnknownOptionIsReportedAndTheRunGoesOn) {
  Parsed parsed = parse({"-x", "-v", "in.ts"});
  EXPECT_FALSE(parsed.outcome.finished);
  EXPECT_EQ(parsed.err, "Unknown option -x ignored\n");
  EXPECT_EQ(parsed.settings.log_level, 3);
  EXPECT_TRUE(parsed.named);
  EXPECT_EQ(parsed.settings.input_file, "in.ts");
}

TEST(Options, OptionsMatchOnlyAsWholeStrings) {
  Parsed parsed = parse({"-qv", "--format=vdx", "-vv", "--Help", "--quie", "in.ts"});
  EXPECT_EQ(parsed.err,
            "Unknown option -qv ignored\n"
            "Unknown option --format=vdx ignored\n"
            "Unknown option -vv ignored\n"
            "Unknown option --Help ignored\n"
            "Unknown option --quie ignored\n");
  EXPECT_EQ(parsed.settings.log_level, 2);
  EXPECT_EQ(parsed.settings.format, 1);
}

TEST(Options, QuietAndVerboseCountUpAndDown) {
  EXPECT_EQ(parse({"-q", "-q", "in.ts"}).settings.log_level, 0);
  EXPECT_EQ(parse({"--quiet", "-v", "--verbose", "in.ts"}).settings.log_level, 3);
  EXPECT_EQ(parse({"-v", "-v", "-v", "in.ts"}).settings.log_level, 5);
}

TEST(Options, NumbersAreReadLikeStrtolInBaseTen) {
  Parsed parsed = parse({"-In", "  42abc", "-Ip", "-7", "-If", "xyz", "-Ib", "+0x20", "in.ts"});
  EXPECT_EQ(parsed.settings.index_links, 42);
  EXPECT_EQ(parsed.settings.index_precision, -7);
  EXPECT_EQ(parsed.settings.index_flags, 0);
  EXPECT_EQ(parsed.settings.index_block_size, 0);
  EXPECT_EQ(parsed.err, "");
}

TEST(Options, NumbersAreCutToThirtyTwoBits) {
  Parsed parsed = parse({"-In", "4294967297", "-Ip", "2147483648", "-Ib", "-4294967295", "x"});
  EXPECT_EQ(parsed.settings.index_links, 1);
  EXPECT_EQ(parsed.settings.index_precision, -2147483647 - 1);
  EXPECT_EQ(parsed.settings.index_block_size, 1);
}

TEST(Options, CaPidIsCutToSixteenBits) {
  EXPECT_EQ(parse({"-c", "8191", "in.ts"}).settings.ca_pid, 8191);
  EXPECT_EQ(parse({"--ca-pid", "65537", "in.ts"}).settings.ca_pid, 1);
  EXPECT_EQ(parse({"-c", "-1", "in.ts"}).settings.ca_pid, 65535);
}

TEST(Options, ExternalFramesForceBitZeroOfTheFlags) {
  EXPECT_EQ(parse({"-If", "2", "-Ix", "in.ts"}).settings.index_flags, 3);
  EXPECT_EQ(parse({"-Ix", "-If", "2", "in.ts"}).settings.index_flags, 3);
  EXPECT_EQ(parse({"-If", "2", "in.ts"}).settings.index_flags, 2);
  EXPECT_EQ(parse({"-If", "4", "--index-external-frames", "in.ts"}).settings.index_flags, 5);
  Parsed parsed = parse({"-IX", "frames.bin", "in.ts"});
  EXPECT_TRUE(parsed.settings.external_frames);
  EXPECT_EQ(parsed.settings.external_file, "frames.bin");
  EXPECT_EQ(parsed.settings.index_flags, 1);
}

TEST(Options, SeekPcrOnlySetsBothFlags) {
  Parsed parsed = parse({"-S", "in.ts"});
  EXPECT_TRUE(parsed.settings.seek_only);
  EXPECT_TRUE(parsed.settings.pcr_only);
  parsed = parse({"--seek-only", "in.ts"});
  EXPECT_TRUE(parsed.settings.seek_only);
  EXPECT_FALSE(parsed.settings.pcr_only);
}

TEST(Options, FlagOptionsSetTheirSettings) {
  Parsed parsed = parse({"-d", "-T", "in.ts"});
  EXPECT_TRUE(parsed.settings.dump);
  EXPECT_TRUE(parsed.settings.trim_pmt);
  parsed = parse({"--dump", "--trim-pmt", "in.ts"});
  EXPECT_TRUE(parsed.settings.dump);
  EXPECT_TRUE(parsed.settings.trim_pmt);
}

TEST(Options, TheLastOfTablesAndNoTablesWins) {
  EXPECT_FALSE(parse({"-t", "-n", "in.ts"}).settings.include_tables);
  EXPECT_TRUE(parse({"--no-tables", "--tables", "in.ts"}).settings.include_tables);
}

TEST(Options, SyncFileIsASynonymOfOffsetFile) {
  EXPECT_EQ(parse({"-Is", "a.ts", "in.ts"}).settings.offset_file, "a.ts");
  EXPECT_EQ(parse({"-O", "a.ts", "--index-sync-file", "b.ts", "in.ts"}).settings.offset_file,
            "b.ts");
  EXPECT_EQ(parse({"--offset-file", "c.ts", "in.ts"}).settings.offset_file, "c.ts");
}

TEST(Options, EncryptionOptionsAreHeldAndKeyFilesAccumulate) {
  Parsed parsed = parse({"-Ee", "a.pem", "-e", "out.ts", "--key-encrypt", "b.pem", "-Ek",
                         "00112233", "-Ee", "a.pem", "in.ts"});
  EXPECT_TRUE(parsed.settings.encrypt);
  EXPECT_EQ(parsed.settings.encrypt_file, "out.ts");
  EXPECT_EQ(parsed.settings.key_text, "00112233");
  EXPECT_EQ(parsed.settings.key_encrypt_files,
            (std::vector<std::string>{"a.pem", "b.pem", "a.pem"}));
  EXPECT_EQ(parse({"--key", "ab", "in.ts"}).settings.key_text, "ab");
  EXPECT_FALSE(parse({"-Ek", "ab", "in.ts"}).settings.encrypt);
}

TEST(Options, TheArgumentOfAnOptionIsTakenWhateverItLooksLike) {
  Parsed parsed = parse({"-e", "-v", "--encrypt", "-", "in.ts"});
  EXPECT_EQ(parsed.settings.encrypt_file, "-");
  EXPECT_EQ(parsed.settings.log_level, 2);
  EXPECT_EQ(parsed.settings.input_file, "in.ts");
}

TEST(Options, LaterOptionOverridesEarlier) {
  Parsed parsed = parse({"-e", "a.ts", "-e", "b.ts", "-c", "5", "-c", "6", "in.ts"});
  EXPECT_EQ(parsed.settings.encrypt_file, "b.ts");
  EXPECT_EQ(parsed.settings.ca_pid, 6);
}

TEST(Options, OptionsAfterTheInputNameAreNames) {
  Parsed parsed = parse({"in.ts", "-v", "-q"});
  EXPECT_EQ(parsed.settings.log_level, 2);
  EXPECT_EQ(parsed.settings.input_file, "in.ts");
  EXPECT_EQ(parsed.settings.output_file, "-v");
  EXPECT_EQ(parsed.err, "");
}

TEST(Options, DashAloneOrAnEmptyArgumentEndsTheOptions) {
  Parsed parsed = parse({"-", "-v"});
  EXPECT_EQ(parsed.settings.input_file, "-");
  EXPECT_EQ(parsed.settings.output_file, "-v");
  parsed = parse({"-q", "", "-v"});
  EXPECT_EQ(parsed.settings.log_level, 1);
  EXPECT_TRUE(parsed.named);
  EXPECT_EQ(parsed.settings.input_file, "");
  EXPECT_EQ(parsed.settings.output_file, "-v");
}

TEST(Options, NoNameLeftGivesNoInput) {
  Parsed parsed = parse({"-v"});
  EXPECT_FALSE(parsed.outcome.finished);
  EXPECT_FALSE(parsed.named);
  EXPECT_EQ(parsed.err, "");
}

TEST(Options, OutputNameIsTheInputNameWithTheFormatsExtension) {
  EXPECT_EQ(parse({"in.ts"}).settings.output_file, "in.ts.vdx2");
  EXPECT_EQ(parse({"-f", "vdx", "in.ts"}).settings.output_file, "in.ts.vdx");
  EXPECT_EQ(parse({"-f", "vdx", "in.ts", "out.idx", "more", "args"}).settings.output_file,
            "out.idx");
}

TEST(Options, NamesAreDerivedBeforeDashMeansStandardInput) {
  Parsed parsed = parse({"-Ix", "-"});
  EXPECT_EQ(parsed.settings.input_file, "-");
  EXPECT_EQ(parsed.settings.output_file, "-.vdx2");
  EXPECT_EQ(parsed.settings.external_file, "-.vdf");
}

TEST(Options, FrameFileNameComesFromTheInputNameInBothFormats) {
  Parsed parsed = parse({"-Ix", "in.ts", "out.vdx2"});
  EXPECT_EQ(parsed.settings.external_file, "in.ts.vdf");
  parsed = parse({"-f", "vdx", "-Ix", "in.ts"});
  EXPECT_EQ(parsed.settings.external_file, "in.ts.vdf");
  parsed = parse({"-IX", "given.vdf", "in.ts"});
  EXPECT_EQ(parsed.settings.external_file, "given.vdf");
  EXPECT_EQ(parse({"in.ts"}).settings.external_file, "");
}

}  // namespace
}  // namespace Veldrin::Tool
