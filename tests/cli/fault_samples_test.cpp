// Images that were once read wrongly, or judged differently by two commands.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/cli/command_runner.h"

namespace capsule::test {
namespace {

namespace fs = std::filesystem;

// Exit statuses of the commands, and what the listing must tell of the damage.
struct FaultSample {
  const char* name;
  int list;
  int verify;
  int extract;
  int index;
  std::vector<const char*> told = {};
};

class FaultSamples : public CommandTest {
 protected:
  CommandResult Run(const std::vector<std::string>& arguments) const {
    const CommandResult result = RunCapsule(arguments);
    EXPECT_TRUE(result.status >= 0 && result.status <= 2) << result.err;
    EXPECT_EQ(result.status == 0, result.err.find("capsule: ") == std::string::npos || IsNote(result.err));
    return result;
  }
};

const FaultSample kSamples[] = {
    {"n_synthetic", 0, 0, 0, 0},
    {"w_three_open_appended", 0, 0, 0, 0},
    {"w_skipped_placeholders", 0, 0, 0, 0},
};

}  // namespace
}  // namespace capsule::test
