// Every input kept for a fuzz target runs through that target's code without a crash, a
// sanitizer report or a failed check of its own: the seeds of fuzz/corpus/<target>, and the
// inputs of findings in tests/fixtures/fuzz/<target>, each of which once failed.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#define VDX_FUZZ_TARGETS(X) \
  X(certificate)            \
  X(encryptor)              \
  X(h264_chain)             \
  X(h264_units)             \
  X(key_list_reader)        \
  X(mpeg2_chain)            \
  X(pes_reader)             \
  X(sections)               \
  X(stream_decryptor)       \
  X(sync_pipe)              \
  X(vdx2dump_vdx)           \
  X(vdx2dump_vdx2)          \
  X(vdx_chain)

#define VDX_DECLARE_TARGET(name) \
  extern "C" int fuzz_target_##name(const uint8_t* data, size_t size);
VDX_FUZZ_TARGETS(VDX_DECLARE_TARGET)

namespace {

struct Target {
  const char* name;
  int (*run)(const uint8_t* data, size_t size);
};

#define VDX_TARGET_ENTRY(name) Target{#name, fuzz_target_##name},
const Target TARGETS[] = {VDX_FUZZ_TARGETS(VDX_TARGET_ENTRY)};

std::vector<std::filesystem::path> files_in(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  if (!std::filesystem::is_directory(folder)) return files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  return files;
}

std::string read_all(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class KeptInputs : public testing::TestWithParam<Target> {};

TEST_P(KeptInputs, RunThroughTheTargetCleanly) {
  const Target& target = GetParam();
  const std::filesystem::path source(VDX_SOURCE_DIR);
  std::vector<std::filesystem::path> inputs = files_in(source / "fuzz" / "corpus" / target.name);
  // Every target has seeds; a folder gone missing would make this test pass on nothing.
  ASSERT_FALSE(inputs.empty()) << "no seeds for " << target.name;
  for (const auto& path : files_in(source / "tests" / "fixtures" / "fuzz" / target.name)) {
    inputs.push_back(path);
  }
  // The fuzzer starts with no bytes at all, and no buffer: the encryptor's chain once copied
  // from that null buffer.
  {
    SCOPED_TRACE("no bytes");
    EXPECT_EQ(target.run(nullptr, 0), 0);
  }
  for (const auto& path : inputs) {
    SCOPED_TRACE(path.string());
    const std::string bytes = read_all(path);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(target.run(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0);
  }
}

std::string target_name(const testing::TestParamInfo<Target>& info) {
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(FuzzTargets, KeptInputs, testing::ValuesIn(TARGETS), target_name);

// The list above names every target of fuzz/, so that none is left out of this test.
TEST(FuzzFolder, EveryTargetIsListedForItsKeptInputs) {
  std::vector<std::string> listed;
  for (const Target& target : TARGETS) listed.push_back(target.name);
  std::vector<std::string> found;
  for (const auto& path : files_in(std::filesystem::path(VDX_SOURCE_DIR) / "fuzz")) {
    if (path.extension() == ".cc") found.push_back(path.stem().string());
  }
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, listed);
}

}  // namespace
