#include "capsule/platform/host_view.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "capsule/platform/dos_time.h"
#include "tests/support/temp_dir.h"

namespace capsule::platform {
namespace {

using test::WriteFile;

class HostViewTest : public testing::Test {
 protected:
  HostViewTest() {
    std::filesystem::create_directories(m_dir / "root/dir/.hidden");
    WriteFile(m_dir / "secret", "outside");
    WriteFile(m_dir / "root/dir/file name.txt", "12345");
    m_view.SetRoot('0', m_dir / "root/");
  }

  uint32_t AttributesOf(std::string_view path) const {
    const auto found = m_view.Find(path);
    return found ? found->attributes : 0xFFFFFFFF;
  }

  test::TempDir m_dir;
  HostView m_view;
};

TEST_F(HostViewTest, RootsStandForDirectories) {
  const std::string root = m_dir / "root";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"0:", root},
      {"0:\\", root + "/"},
      {"0:a", root + "/a"},
      {"0:\\a/b", root + "/a/b"},
      {"0:\\\\a\\\\b\\", root + "/a/b/"},
      {"0:\\dir\\.", root + "/dir/"},
      {"0:\\dir\\..", root + "/"},
      {"0:\\..", root + "/"},
      {"0:..\\..\\../../secret", root + "/secret"},
      {"0:\\a\\..\\..\\b\\.\\c", root + "/b/c"},
      {"0:\\...", root + "/..."},
      {"0:\\1:\\a", root + "/1:/a"},
      {"plain\\path", "plain/path"},
      {"/abs\\..\\x", "/abs/../x"},
      {"", ""},
  };
  for (const auto& [path, resolved] : cases) EXPECT_EQ(m_view.Resolve(path), resolved) << path;

  for (const std::string path : {"1:\\a", "C:\\a", "::a"})
    EXPECT_FALSE(m_view.Resolve(path)) << path;
  EXPECT_FALSE(m_view.Resolve(std::string("0:\\dir\0x", 8)));
  m_view.SetRoot('c', "/");
  EXPECT_EQ(m_view.Resolve("c:\\testdump.txt"), "/testdump.txt");
  EXPECT_FALSE(m_view.Resolve("C:\\testdump.txt")) << "letters are compared exactly";
}

TEST_F(HostViewTest, AttributesAreThoseOfDos) {
  WriteFile(m_dir / "root/.dot", "");
  WriteFile(m_dir / "root/locked", "");
  ASSERT_EQ(::chmod((m_dir / "root/locked").c_str(), 0444), 0);
  ASSERT_EQ(::symlink("dir", (m_dir / "root/.link").c_str()), 0);
  EXPECT_EQ(AttributesOf("0:\\dir\\file name.txt"), 0x20U);
  EXPECT_EQ(AttributesOf("0:\\.dot"), 0x22U);
  EXPECT_EQ(AttributesOf("0:\\locked"), 0x21U);
  EXPECT_EQ(AttributesOf("0:\\dir\\.hidden"), 0x12U);
  EXPECT_EQ(AttributesOf("0:\\dir\\.hidden\\"), 0x12U);
  EXPECT_EQ(AttributesOf("0:.link"), 0x12U);
  for (const char* plain : {"0:", "0:\\", "0:\\..", "0:\\.", "0:\\dir\\", "0:\\dir\\.hidden\\.",
                            "0:\\dir\\.hidden\\..", "0:\\dir\\.."}) {
    EXPECT_EQ(AttributesOf(plain), 0x10U) << plain;
  }
  for (const char* missing : {"0:\\none", "1:\\dir", "0:\\secret", "0:\\..\\secret", "",
                              "0:\\dir\\file name.txt\\", "0:\\dir\\file name.txt\\x"}) {
    EXPECT_FALSE(m_view.Find(missing)) << missing;
  }
}

TEST_F(HostViewTest, TimesFollowThePolicyAndTheCap) {
  const std::string path = m_dir / "root/dir/file name.txt";
  const timespec times[2] = {{1000000001, 500}, {1100000001, 123456789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  const FileTime modified = FileTimeFromUnix(1100000001, 123456789);
  auto found = m_view.Find("0:\\dir\\file name.txt");
  EXPECT_EQ(found->lastWriteTime, modified);
  EXPECT_EQ(found->lastAccessTime, FileTimeFromUnix(1000000001, 500));
  struct statx status {};
  ASSERT_EQ(::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &status), 0);
  const bool born = (status.stx_mask & STATX_BTIME) != 0;
  EXPECT_EQ(found->creationTime,
            born ? FileTimeFromUnix(status.stx_btime.tv_sec, status.stx_btime.tv_nsec) : modified);

  m_view.CapTimes(1100000001);
  EXPECT_EQ(m_view.Find("0:\\dir\\file name.txt")->lastWriteTime, FileTimeFromUnix(1100000001, 0));
  m_view.SetTimePolicy(TimePolicy::ModificationOnly);
  m_view.CapTimes(1050000000);
  found = m_view.Find("0:\\dir\\file name.txt");
  for (const FileTime time : {found->creationTime, found->lastAccessTime, found->lastWriteTime}) {
    EXPECT_EQ(time, FileTimeFromUnix(1050000000, 0));
  }
}

TEST_F(HostViewTest, ShortPathsReplaceTheLastComponentAlone) {
  EXPECT_EQ(m_view.ShortPath("0:\\dir\\file name.txt"), "0:\\dir\\FILE_N~1.TXT");
  EXPECT_EQ(m_view.ShortPath("0:/dir/.hidden"), "0:/dir/_HIDDE~1");
  EXPECT_EQ(m_view.ShortPath("0:dir"), "0:DIR");
  EXPECT_EQ(m_view.ShortPath("0:\\dir\\..\\dir"), "0:\\dir\\..\\DIR");
  for (const char* same : {"0:", "0:\\", "0:\\dir\\.", "0:\\dir\\..", "0:\\dir\\"}) {
    EXPECT_EQ(m_view.ShortPath(same), same);
  }
  for (const char* missing : {"0:\\DIR", "0:\\none", "0:\\none\\x", "0:\\none\\.", "1:\\dir", ""}) {
    EXPECT_FALSE(m_view.ShortPath(missing)) << missing;
  }
  m_view.SetAliasPolicy(AliasPolicy::Exact);
  EXPECT_EQ(m_view.ShortPath("0:\\dir"), "0:\\DIR~1");

  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(m_dir.Path());
  EXPECT_EQ(m_view.ShortPath("secret"), "SECRET~1");
  EXPECT_EQ(m_view.ShortPath("root\\dir"), "root\\DIR~1");
  EXPECT_EQ(m_view.ShortPath(m_dir / "secret"), m_dir / "SECRET~1");
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace capsule::platform
