#include "capsule/runtime/debug_tracer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <utility>

#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

const std::string kBegin = "==== BEGIN DEBUGGING ====\n";
const std::string kEnd = "==== END DEBUGGING ====\n";

// Variables of the environment, for the length of a scope.
class Environment {
 public:
  explicit Environment(std::map<std::string, std::string> values) : m_Values(std::move(values)) {
    for (const auto& [name, value] : m_Values) ::setenv(name.c_str(), value.c_str(), 1);
  }
  ~Environment() {
    for (const auto& [name, value] : m_Values) ::unsetenv(name.c_str());
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  std::map<std::string, std::string> m_Values;
};

TEST(DebugTracerTest, IsOffWithoutAVariable) {
  DebugTracer tracer("capsule_test");
  EXPECT_EQ(tracer.Trace("%d", 1), 0);
}

TEST(DebugTracerTest, WritesEachTextAtOnceAndUnchanged) {
  const TempDir dir;
  WriteFile(dir / "t", "what an earlier run left");
  const Environment environment({{"CAPSULE_TEST", dir / "t"}, {"CAPSULE_TEST_TOFILE", dir / "u"}});
  {
    DebugTracer tracer("Capsule_Test");
    EXPECT_EQ(ReadFile(dir / "t"), kBegin);
    EXPECT_EQ(tracer.Trace("%s %d \n", "100% %s%n", 7), 1);
    EXPECT_EQ(ReadFile(dir / "t"), kBegin + "100% %s%n 7 \n");
    tracer.Trace("%s", std::string(1023, 'a').c_str());
    tracer.Trace("%s", (std::string(1023, 'b') + "cut").c_str());
  }
  EXPECT_EQ(ReadFile(dir / "t"),
            kBegin + "100% %s%n 7 \n" + std::string(1023, 'a') + std::string(1023, 'b') + kEnd);
  EXPECT_FALSE(std::filesystem::exists(dir / "u")) << "the plain variable comes first";
}

TEST(DebugTracerTest, StaysOffWhenTheFileIsNotToBeHad) {
  const TempDir dir;
  WriteFile(dir / "victim", "precious");
  ASSERT_EQ(::symlink((dir / "victim").c_str(), (dir / "link").c_str()), 0);
  const std::string fits = dir / std::string(254 - dir.Path().string().size(), 'x');
  ASSERT_EQ(fits.size(), 255U);
  for (const std::string& path :
       {dir / "missing/t", dir / "link", dir.Path().string(), std::string(), fits + "x"}) {
    const Environment environment({{"CAPSULE_TEST", path}, {"CAPSULE_TEST_TOFILE", dir / "u"}});
    DebugTracer tracer("CAPSULE_TEST");
    EXPECT_EQ(tracer.Trace("x"), 0) << path;
  }
  EXPECT_EQ(ReadFile(dir / "victim"), "precious");
  EXPECT_FALSE(std::filesystem::exists(dir / "u"));
  EXPECT_FALSE(std::filesystem::exists(fits)) << "the path was cut";
  const Environment environment({{"CAPSULE_TEST", fits}});
  EXPECT_EQ(DebugTracer("CAPSULE_TEST").Trace("x"), 1);
  EXPECT_EQ(DebugTracer(std::string(300, 'x').c_str()).Trace("x"), 0);
}

int RunChild(const std::string& arguments) {
  return std::system(("\"" TRACER_CHILD "\" " + arguments).c_str());
}

TEST(DebugTracerTest, TheLibrarysTracersLiveFromLoadToUnload) {
  const TempDir dir;
  {
    const Environment environment({{"THORNWICK_DEBUG_TRACER", dir / "main"}});
    ASSERT_EQ(RunChild(""), 0);
    EXPECT_EQ(ReadFile(dir / "main"), kBegin + "main 1\n" + kEnd);
    ASSERT_EQ(RunChild("silent"), 0);
    EXPECT_EQ(ReadFile(dir / "main"), kBegin + kEnd);
  }
  const Environment environment({{"THORNWICK_DEBUG_CAPCODEC_OUTPUT_TOFILE", dir / "index"}});
  std::filesystem::remove(dir / "main");
  ASSERT_EQ(RunChild(""), 0);
  EXPECT_EQ(ReadFile(dir / "index"), kBegin + "index 2\n" + kEnd);
  EXPECT_FALSE(std::filesystem::exists(dir / "main")) << "the two are independent";
}

}  // namespace
}  // namespace capsule
