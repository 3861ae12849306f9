#include "capsule/runtime/debug_tracer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

const std::string kBegin = "==== BEGIN DEBUGGING ====\n";
const std::string kEnd = "==== END DEBUGGING ====\n";

class DebugTracerTest : public testing::Test {
 protected:
  ~DebugTracerTest() override {
    for (const char* name : {"CAPSULE_TEST", "CAPSULE_TEST_TOFILE"}) ::unsetenv(name);
  }

  void SetVariable(const std::string& path) const {
    ::setenv("CAPSULE_TEST", path.c_str(), 1);
    ::setenv("CAPSULE_TEST_TOFILE", (m_dir / "second").c_str(), 1);
  }

  const TempDir m_dir;
};

TEST_F(DebugTracerTest, WritesEachTextAtOnceAndUnchanged) {
  const std::string path = m_dir / "t";
  WriteFile(path, "what an earlier run left");
  SetVariable(path);
  std::string written = kBegin + "100% %s%n 7 \n";
  {
    DebugTracer tracer("Capsule_Test");
    EXPECT_EQ(ReadFile(path), kBegin);
    EXPECT_EQ(tracer.Trace("%s %d \n", "100% %s%n", 7), 1);
    EXPECT_EQ(ReadFile(path), written);
    tracer.Trace("%s", std::string(1023, 'a').c_str());
    tracer.Trace("%s", (std::string(1023, 'b') + "cut").c_str());
  }
  EXPECT_EQ(ReadFile(path), written + std::string(1023, 'a') + std::string(1023, 'b') + kEnd);
  EXPECT_FALSE(std::filesystem::exists(m_dir / "second")) << "the plain variable comes first";
}

TEST_F(DebugTracerTest, StaysOffWhenNoFileIsNamedOrToBeHad) {
  EXPECT_EQ(DebugTracer("CAPSULE_TEST").Trace("%d", 1), 0);
  WriteFile(m_dir / "victim", "precious");
  ASSERT_EQ(::symlink((m_dir / "victim").c_str(), (m_dir / "link").c_str()), 0);
  const std::string fits = m_dir / std::string(254 - m_dir.Path().string().size(), 'x');
  for (const std::string& path :
       {m_dir / "missing/t", m_dir / "link", m_dir.Path().string(), std::string(), fits + "x"}) {
    SetVariable(path);
    EXPECT_EQ(DebugTracer("CAPSULE_TEST").Trace("x"), 0) << path;
  }
  EXPECT_EQ(ReadFile(m_dir / "victim"), "precious");
  EXPECT_FALSE(std::filesystem::exists(m_dir / "second"));
  EXPECT_FALSE(std::filesystem::exists(fits)) << "the path was cut";
  SetVariable(fits);
  EXPECT_EQ(DebugTracer("CAPSULE_TEST").Trace("x"), 1) << fits.size();
  EXPECT_EQ(DebugTracer(std::string(300, 'x').c_str()).Trace("x"), 0);
}

// What a program traces when `variable` names a file.
std::string TraceOfChild(const std::string& variable, const std::string& arguments) {
  const TempDir dir;
  const std::string command = variable + "='" + (dir / "t") + "' '" TRACER_CHILD "' " + arguments;
  EXPECT_EQ(std::system(command.c_str()), 0);
  return ReadFile(dir / "t");
}

TEST(LibraryTracersTest, LiveFromLoadToUnloadApartFromEachOther) {
  EXPECT_EQ(TraceOfChild("THORNWICK_DEBUG_TRACER", ""), kBegin + "main 1\n" + kEnd);
  EXPECT_EQ(TraceOfChild("THORNWICK_DEBUG_TRACER", "silent"), kBegin + kEnd);
  EXPECT_EQ(TraceOfChild("THORNWICK_DEBUG_CAPCODEC_OUTPUT_TOFILE", ""),
            kBegin + "index 2\n" + kEnd);
}

}  // namespace
}  // namespace capsule
