// Images that were once read wrongly, or judged differently by two commands. One line a sample:
// the exit statuses of the commands, and what the damage is called.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/cli/command_runner.h"

namespace capsule::test {
namespace {

namespace fs = std::filesystem;

constexpr char kFolder[] = CAPSULE_TEST_DATA "/images/faults/";

struct FaultSample {
  const char* name;
  int opened;   // list, info and extract
  int checked;  // verify
  int indexed;  // 0 and 1: it was written, and the image is sound, or told to be damaged; 2:
                // refused
  const char* told = "";  // by list and verify
};

const FaultSample kSamples[] = {
    {"d_name_binary", 1, 1, 2, "short name has control characters"},
    {"dot_name_checked", 1, 1, 2, "its records are not what the index says"},
    {"dot_name_unchecked", 1, 1, 2, "entry of the folder itself is damaged"},
    {"h_compact_k9_m2", 1, 1, 2, "folders of partition 2 cannot be read"},
    {"h_count_3", 1, 1, 2, "folders of partition 2 cannot be read"},
    {"h_flag_on_plain", 1, 1, 2, "folders of partition 2 cannot be read"},
    {"n_first_is_file", 1, 1, 2, "no folder has a place for it"},
    {"n_indx_entry_len_0", 1, 1, 2, "no folder has a place for it"},
    {"n_record_zero", 1, 1, 2, "FILE record has no name"},
    {"n_size_7fffffff_206", 1, 1, 2, "its entry states 2147483647 bytes"},
    {"n_size_ffffffff", 1, 1, 2, "its entry states 4294967295 bytes"},
    {"n_synthetic", 0, 0, 0},
    {"not_an_image", 2, 2, 2, "no image header"},
    {"ordinal_1", 1, 1, 1, "1 where"},
    {"ordinal_2", 1, 1, 1, "4 where"},
    {"partition_count", 1, 1, 2, "not one of the 2 that the header tells of"},
    {"unit_without_end", 1, 1, 2, "record at 0x26d1"},
    {"unit_without_end_one_bit", 1, 1, 2, "record at 0x26d1"},
    {"verify_no_partition", 1, 1, 2, "not one of the 0 that the header tells of"},
    {"verify_silent_1", 1, 1, 2, "partition record 1 is not counted"},
    {"verify_silent_2", 1, 1, 2, "not what the index says"},
    {"w_drive_root", 0, 0, 0},
    {"w_no_partition", 0, 0, 0},
    {"w_skipped_placeholders", 0, 0, 0},
    {"w_three_open_appended", 0, 0, 0},
};

class FaultSampleTest : public CommandTest, public testing::WithParamInterface<FaultSample> {};

// The status of a command that tells `told`, if it finds anything.
int StatusOf(const std::vector<std::string>& arguments, const std::string& told = "") {
  const CommandResult result = RunCapsule(arguments);
  const std::string output = result.out + result.err;
  EXPECT_TRUE(result.status == 0 || output.find(told) != std::string::npos) << output;
  return result.status;
}

TEST_P(FaultSampleTest, EveryCommandJudgesItTheSame) {
  const FaultSample& sample = GetParam();
  const std::string image = At("image");
  const std::string bytes = ReadFile(kFolder + std::string(sample.name) + ".img");
  WriteFile(image, bytes);
  fs::create_directories(At("out"));
  EXPECT_EQ(StatusOf({"list", "-R", image}, sample.told), sample.opened);
  EXPECT_EQ(StatusOf({"info", image}), sample.opened);
  EXPECT_EQ(StatusOf({"extract", image, "-C", At("out")}), sample.opened);
  EXPECT_EQ(StatusOf({"verify", image}, sample.told), sample.checked);
  EXPECT_TRUE(ReadFile(image) == bytes);

  // Zeros for what is lost take no more than the image can have held.
  constexpr uintmax_t kMostBytesOfOne = 30;
  uintmax_t extracted = 0;
  StatusOf({"extract", image, "-C", At("out"), "--force", "--on-damage=zero"});
  for (const auto& entry : fs::recursive_directory_iterator(At("out"))) {
    if (entry.is_regular_file()) extracted += entry.file_size();
  }
  EXPECT_LE(extracted, kMostBytesOfOne * bytes.size());

  EXPECT_EQ(StatusOf({"index", image}), sample.indexed);
  if (sample.indexed == 2) {
    EXPECT_TRUE(ReadFile(image) == bytes);
  } else {
    EXPECT_EQ(StatusOf({"list", "-R", image}), sample.indexed);
    EXPECT_EQ(StatusOf({"verify", image}), sample.indexed);
  }
}

INSTANTIATE_TEST_SUITE_P(Samples, FaultSampleTest, testing::ValuesIn(kSamples),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace capsule::test
